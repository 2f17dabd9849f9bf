// runOnWorkers: one piece of work run by several threads at once, the calling thread among them.
#pragma once

#include <functional>
#include <system_error>
#include <thread>
#include <vector>

namespace kestrel {

// Runs `work` on `workers` threads (the caller's included) and returns once every run ended.
// A thread that cannot be started is done without: the others take what it would have.
inline void runOnWorkers(unsigned workers, const std::function<void()>& work) {
  std::vector<std::thread> helpers;
  for (unsigned i = 1; i < workers; ++i) {
    try {
      helpers.emplace_back(work);
    } catch (const std::system_error&) {
      break;
    }
  }
  work();
  for (auto& t : helpers) t.join();
}

}  // namespace kestrel
