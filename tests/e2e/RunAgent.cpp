// Runs the built agent binary in a child process with a controlled environment.
#include "tests/e2e/RunAgent.h"

#include "core/system/process/Shell.h"

#include <cstdlib>

namespace kestrel::test {

AgentRun runAgentBinary(const ScratchHome& home, const std::vector<std::string>& args, bool withHome, double timeout) {
  std::vector<std::string> envArgs;
  envArgs.push_back(withHome ? "HOME=" + home.home().string() : "-u");
  if (!withHome) envArgs.push_back("HOME");
  envArgs.push_back(KESTREL_AGENT_BINARY);
  envArgs.insert(envArgs.end(), args.begin(), args.end());
  auto r = Shell::run("/usr/bin/env", envArgs, timeout);
  return {r.status, r.stdout, r.stderr};
}

AgentRun runAgentAt(const std::string& home, const std::vector<std::string>& args, double timeout,
                    const std::string& wrapper) {
  std::vector<std::string> argv{"HOME=" + home};
  if (!wrapper.empty()) argv.insert(argv.end(), {"/bin/sh", "-c", wrapper, "sh"});
  argv.push_back(KESTREL_AGENT_BINARY);
  argv.insert(argv.end(), args.begin(), args.end());
  auto r = Shell::run("/usr/bin/env", argv, timeout);
  return {r.status, r.stdout, r.stderr};
}

AgentRun runAgentLinux(const ScratchHome& home, const std::vector<std::string>& args,
                       const std::vector<std::string>& env, double timeout) {
  std::vector<std::string> argv{"HOME=" + home.home().string(), "KESTREL_LAYOUT=linux"};
  argv.insert(argv.end(), env.begin(), env.end());
  argv.push_back(KESTREL_AGENT_BINARY);
  argv.insert(argv.end(), args.begin(), args.end());
  auto r = Shell::run("/usr/bin/env", argv, timeout);
  return {r.status, r.stdout, r.stderr};
}

AgentRun runHostBinary(const ScratchHome& home, const std::vector<std::string>& args,
                       const std::vector<std::string>& env, double timeout) {
  std::vector<std::string> argv{"HOME=" + home.home().string()};
  argv.insert(argv.end(), env.begin(), env.end());
  argv.push_back(KESTREL_HOST_BINARY);
  argv.insert(argv.end(), args.begin(), args.end());
  auto r = Shell::run("/usr/bin/env", argv, timeout);
  return {r.status, r.stdout, r.stderr};
}

}  // namespace kestrel::test
