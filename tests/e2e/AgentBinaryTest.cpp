// End to end: the built KestrelAgent run as a user would, with HOME set to a scratch home.
#include "tests/e2e/RunAgent.h"

#include <gtest/gtest.h>

namespace kestrel::test {
namespace {

TEST(AgentBinary, PrintsUsageForUnknownCommandsWithOrWithoutHome) {
  ScratchHome h;
  // {arguments, HOME set}; without HOME the home comes from the password database. Which words
  // count as unknown is the dispatcher's own test.
  const std::pair<std::vector<std::string>, bool> cases[] = {{{"help"}, true}, {{"help"}, false}};
  for (const auto& [args, withHome] : cases) {
    SCOPED_TRACE((args.empty() ? "<none>" : args[0]) + (withHome ? "" : " without HOME"));
    auto r = runAgentBinary(h, args, withHome);
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out.rfind("orvo Kestrel agent\n  run-scheduled | run-rule <name>", 0), 0u) << r.out;
  }
}

}  // namespace
}  // namespace kestrel::test
