// End to end: "scan", "clean" and "quarantine" through the built binary on a scratch home, with a
// folder whose name is not UTF-8 beside an ordinary one.
#include "core/base/ByteFormat.h"
#include "core/base/Json.h"
#include "core/base/Text.h"
#include "core/store/AuditLog.h"
#include "core/system/fs/FS.h"
#include "tests/support/FakeTools.h"
#include "tests/e2e/RunAgent.h"

#include <gtest/gtest.h>

#include <set>

namespace kestrel::test {
namespace {

namespace fs = std::filesystem;

TEST(CleanBinary, DryRunThenCleanThenUndoKeepTheExactNames) {
  ScratchHome h;
  const std::string bad = "Library/Caches/bad\xff", ordinary = "Library/Caches/ordinary";
  for (const auto& rel : {bad, ordinary}) h.oldFolder(rel, 70000);
  h.text("Library/Application Support/orvo Kestrel/config.json",
         R"({"disposalOverrides": {"userCaches": "quarantine"}})");
  const std::string badPath = h.path(bad).string(), ordinaryPath = h.path(ordinary).string();
  const std::string size = ByteFormat::string(FS::allocatedSize(badPath) + FS::allocatedSize(ordinaryPath));

  // scan --json: valid UTF-8; the id keeps the byte, the title shows U+FFFD.
  const auto scan = runAgentBinary(h, {"scan", "--json"});
  ASSERT_EQ(scan.status, 0) << scan.err;
  EXPECT_TRUE(Utf8::isValid(scan.out));
  EXPECT_NE(scan.out.find(R"("id" : ")" + JsonText::compact(Json(badPath)).substr(1)), std::string::npos) << scan.out;
  EXPECT_NE(scan.out.find("\"title\" : \"bad\xEF\xBF\xBD\""), std::string::npos) << scan.out;

  EXPECT_EQ(runAgentBinary(h, {"clean", "--category", "userCaches", "--dry-run"}).out, size + " to quarantine\n");
  EXPECT_TRUE(fs::exists(h.path(bad + "/blob")));

  // clean → quarantine list → restore: both back, byte-identical.
  const auto clean = runAgentBinary(h, {"clean", "--category", "userCaches"});
  ASSERT_EQ(clean.status, 0) << clean.err;
  EXPECT_EQ(clean.out, size + " to quarantine\n");
  EXPECT_FALSE(lexists(badPath));
  EXPECT_FALSE(lexists(ordinaryPath));
  const auto list = runAgentBinary(h, {"quarantine", "list"});
  ASSERT_EQ(list.status, 0) << list.err;
  EXPECT_NE(list.out.find("\t" + size + "\t2 items\tManual\texpires "), std::string::npos) << list.out;
  const std::string id = list.out.substr(0, list.out.find('\t'));
  const auto restore = runAgentBinary(h, {"quarantine", "restore", id});
  EXPECT_EQ(restore.out, "Restored.\n") << restore.err;
  for (const auto& rel : {bad, ordinary}) EXPECT_EQ(readText(h.path(rel + "/blob")), std::string(70000, 'x')) << rel;
}

// A broken or hostile container engine reports sizes no disk holds: shown as unknown, never claimed.
TEST(CleanBinary, ToolFiguresThatCannotBeTrueAreNeverClaimed) {
  ScratchHome h;
  FakeTools tools(h.root());
  tools.script("docker",
               "case \"$1\" in\n"
               "  system) printf '%s\\n' '{\"Type\":\"Images\",\"Reclaimable\":\"9999999PB\"}' "
               "'{\"Type\":\"Containers\",\"Reclaimable\":\"-1GB\"}' '{\"Type\":\"Build Cache\",\"Reclaimable\":\"2MB\"}' ;;\n"
               "esac\nexit 0");
  const auto scan = runAgentBinary(h, {"scan"});
  EXPECT_EQ(scan.status, 0) << scan.err;
  EXPECT_EQ(scan.out.find("EB"), std::string::npos) << scan.out;
  EXPECT_NE(scan.out.find("2 MB"), std::string::npos) << scan.out;
  const auto clean = runAgentBinary(h, {"clean", "--category", "docker", "--max-risk", "caution"});
  EXPECT_EQ(clean.status, 0) << clean.err;
  EXPECT_EQ(clean.out, "Freed 2 MB\n");
  EXPECT_EQ(AuditLog(h.paths()).lifetimeFreed(), 2000000);
  for (const auto& e : AuditLog(h.paths()).recent(10)) EXPECT_GE(e.size, 0) << e.target;
}

}  // namespace
}  // namespace kestrel::test
