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

// Runs the agent with HOME set to `home` (any spelling, links included), optionally inside a
// shell snippet `wrapper` that ends by running "$@" (for example "ulimit -n 256; exec \"$@\"").
AgentRun runAgentAt(const std::string& home, const std::vector<std::string>& args, double timeout = 120,
                    const std::string& wrapper = "");

// Runs the agent on the Linux table with HOME set to the scratch home and `env` ("NAME=value")
// added to its environment.
AgentRun runAgentLinux(const ScratchHome& home, const std::vector<std::string>& args,
                       const std::vector<std::string>& env = {}, double timeout = 120);

// Runs the host command line `kestrel` with HOME set to the scratch home and `env` ("NAME=value")
// added to its environment.
AgentRun runHostBinary(const ScratchHome& home, const std::vector<std::string>& args,
                       const std::vector<std::string>& env = {}, double timeout = 120);

}  // namespace kestrel::test
