// End to end: "clean" and "quarantine" through the built binary on a scratch home.
#include "tests/e2e/RunAgent.h"

#include <gtest/gtest.h>

namespace kestrel::test {
namespace {

namespace fs = std::filesystem;

TEST(CleanBinary, DryRunThenCleanThenUndo) {
  ScratchHome h;
  h.file("Library/Caches/com.example.app/cache.db", 200000);
  h.age("Library/Caches/com.example.app/cache.db", 3);
  h.age("Library/Caches/com.example.app", 3);
  h.text("Library/Application Support/orvo Kestrel/config.json", R"({"disposalOverrides": {"userCaches": "quarantine"}})");

  auto dry = runAgentBinary(h, {"clean", "--category", "userCaches", "--dry-run"});
  EXPECT_EQ(dry.status, 0);
  EXPECT_NE(dry.out.find(" to quarantine"), std::string::npos) << dry.out;
  EXPECT_TRUE(fs::exists(h.path("Library/Caches/com.example.app/cache.db")));

  auto clean = runAgentBinary(h, {"clean", "--category", "userCaches"});
  EXPECT_EQ(clean.status, 0);
  EXPECT_EQ(clean.out, "201 KB to quarantine\n");
  EXPECT_FALSE(fs::exists(h.path("Library/Caches/com.example.app")));

  auto list = runAgentBinary(h, {"quarantine", "list"});
  ASSERT_EQ(list.status, 0);
  const std::string id = list.out.substr(0, list.out.find('\t'));
  EXPECT_NE(list.out.find("\t201 KB\t1 items\tManual\texpires "), std::string::npos) << list.out;
  auto restore = runAgentBinary(h, {"quarantine", "restore", id});
  EXPECT_EQ(restore.out, "Restored.\n");
  EXPECT_TRUE(fs::exists(h.path("Library/Caches/com.example.app/cache.db")));
  auto missing = runAgentBinary(h, {"quarantine", "purge", id});
  EXPECT_NE(missing.status, 0);
}

}  // namespace
}  // namespace kestrel::test
