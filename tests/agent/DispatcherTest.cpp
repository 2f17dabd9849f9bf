// Dispatcher: usage text, exit statuses, stamp and option.
#include "agent/Dispatcher.h"

#include "tests/support/ScratchHome.h"

#include <gtest/gtest.h>

#include <sstream>

namespace kestrel::agent {
namespace {

const char* kUsage =
    "orvo Kestrel agent\n"
    "  run-scheduled | run-rule <name> | scan [--json] | clean --category <c> [--max-risk r] [--dry-run]\n"
    "  forecast | growth [days] | quarantine list|restore <id>|purge <id> | rules\n"
    "  shred-watch | shred-now | shred-history\n";

TEST(Dispatcher, UnknownWordsPrintUsageAndSucceed) {
  test::ScratchHome h;
  const std::vector<std::vector<std::string>> invocations = {{}, {"help"}, {"Scan"}, {"bogus", "x"}, {"--json"}, {"SCAN"}};
  for (const auto& args : invocations) {
    SCOPED_TRACE(args.empty() ? "<none>" : args[0]);
    std::ostringstream out;
    EXPECT_EQ(runAgent(args, h.paths(), out), 0);
    EXPECT_EQ(out.str(), kUsage);
  }
}

TEST(Dispatcher, OptionAndFlag) {
  std::ostringstream out;
  AgentContext ctx{{"--category", "logs", "--dry-run", "--max-risk"}, Paths("/tmp"), out};
  EXPECT_EQ(ctx.option("--category"), "logs");
  EXPECT_EQ(ctx.option("--max-risk"), std::nullopt);  // last argument: no value
  EXPECT_EQ(ctx.option("--missing"), std::nullopt);
  EXPECT_EQ(ctx.option("--Category"), std::nullopt);
  EXPECT_TRUE(ctx.flag("--dry-run"));
  EXPECT_FALSE(ctx.flag("--json"));
  AgentContext twice{{"--x", "1", "--x", "2"}, Paths("/tmp"), out};
  EXPECT_EQ(twice.option("--x"), "1");
}

TEST(Dispatcher, StampPrintsUtcTimeAndMessage) {
  std::ostringstream out;
  AgentContext ctx{{}, Paths("/tmp"), out};
  ctx.services.now = [] { return Dates::fromUnixSeconds(1795371789) + std::chrono::milliseconds(700); };
  ctx.stamp("Scheduled tick");
  ctx.stamp("");
  EXPECT_EQ(out.str(), "2026-11-22T18:23:09Z Scheduled tick\n2026-11-22T18:23:09Z \n");
}

}  // namespace
}  // namespace kestrel::agent
