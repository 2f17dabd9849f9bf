// waitFor: polls a condition with a deadline (tests never sleep for a result).
#pragma once

#include <chrono>
#include <functional>
#include <thread>

namespace kestrel::test {

inline bool waitFor(const std::function<bool()>& cond, double seconds) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
  while (std::chrono::steady_clock::now() < end) {
    if (cond()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return cond();
}

}  // namespace kestrel::test
