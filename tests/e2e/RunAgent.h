// Runs the built KestrelAgent binary with HOME set to a scratch home and collects its output.
#pragma once

#include "tests/support/ScratchHome.h"

#include <string>
#include <vector>

namespace kestrel::test {

struct AgentRun {
  int status = -1;
  std::string out;
  std::string err;
};

// Runs the agent with `args`; HOME is the scratch home unless `withHome` is false (then unset).
AgentRun runAgentBinary(const ScratchHome& home, const std::vector<std::string>& args, bool withHome = true,
                        double timeout = 120);

}  // namespace kestrel::test
