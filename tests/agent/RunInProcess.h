// Runs the agent's dispatcher in this process against a scratch home and captures its output.
#pragma once

#include "agent/Dispatcher.h"
#include "tests/support/ScratchHome.h"

#include <sstream>
#include <string>
#include <vector>

namespace kestrel::test {

struct Run {
  int status;
  std::string out;
};

inline Run run(const ScratchHome& h, std::vector<std::string> args) {
  std::ostringstream out;
  const int status = agent::runAgent(std::move(args), h.paths(), out);
  return {status, out.str()};
}

}  // namespace kestrel::test
