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

// The clock stands at kTestNow unless `services` brings one of its own.
inline Run run(const ScratchHome& h, std::vector<std::string> args, Services services = {}) {
  if (!services.now) services.now = [] { return kTestNow; };
  std::ostringstream out;
  const int status = agent::runAgent(std::move(args), h.paths(), out, services);
  return {status, out.str()};
}

}  // namespace kestrel::test
