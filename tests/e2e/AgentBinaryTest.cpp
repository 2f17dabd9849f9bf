// End to end: the built KestrelAgent run as a user would, with HOME set to a scratch home.
#include "tests/e2e/RunAgent.h"

#include <gtest/gtest.h>

namespace kestrel::test {
namespace {

TEST(AgentBinary, PrintsUsageForUnknownCommands) {
  ScratchHome h;
  for (const std::vector<std::string>& args : std::vector<std::vector<std::string>>{{}, {"help"}, {"Scan"}}) {
    auto r = runAgentBinary(h, args);
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out.rfind("orvo Kestrel agent\n  run-scheduled | run-rule <name>", 0), 0u) << r.out;
  }
}

TEST(AgentBinary, FallsBackToPasswordDatabaseWithoutHome) {
  ScratchHome h;
  auto r = runAgentBinary(h, {"help"}, /*withHome=*/false);
  EXPECT_EQ(r.status, 0);
  EXPECT_NE(r.out.find("orvo Kestrel agent"), std::string::npos);
}

}  // namespace
}  // namespace kestrel::test
