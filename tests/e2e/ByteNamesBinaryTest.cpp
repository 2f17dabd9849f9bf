// End to end: a folder whose name is not UTF-8 through scan, clean, quarantine, the audit log and
// growth.
#include <gtest/gtest.h>

#include <set>
#include <sstream>

#include "core/insights/GrowthTracker.h"
#include "core/store/AuditLog.h"
#include "core/base/Json.h"
#include "core/base/Text.h"
#include "tests/e2e/RunAgent.h"

namespace kestrel::test {
namespace {

TEST(ByteNamesBinary, ScanCleanRestoreAuditAndGrowthKeepTheExactName) {
  ScratchHome h;
  const std::string bad = "Library/Caches/bad\xff", ordinary = "Library/Caches/ordinary";
  for (const auto& rel : {bad, ordinary}) {
    h.file(rel + "/blob", 70000);
    h.age(rel + "/blob", 10);
    h.age(rel, 10);
  }
  h.text("Library/Application Support/orvo Kestrel/config.json",
         R"({"disposalOverrides":{"userCaches":"quarantine"}})");
  const std::string badPath = h.path(bad).string(), ordinaryPath = h.path(ordinary).string();

  // scan --json: valid UTF-8; the id and path keep the byte, the title shows U+FFFD.
  const auto scan = runAgentBinary(h, {"scan", "--json"});
  ASSERT_EQ(scan.status, 0) << scan.err;
  EXPECT_TRUE(Utf8::isValid(scan.out));
  EXPECT_NE(scan.out.find(R"(Caches\/bad\udcff")"), std::string::npos) << scan.out;
  const auto items = JsonText::parse(scan.out);
  ASSERT_TRUE(items && items->is_array());
  std::set<std::string> ids;
  for (const auto& item : *items) {
    ids.insert(item.at("id").get<std::string>());
    if (item.at("id") == badPath) {
      EXPECT_EQ(item.at("target").at("path").at("_0").get<std::string>(), badPath);
      EXPECT_EQ(item.at("title").get<std::string>(), "bad\xEF\xBF\xBD");
    }
  }
  EXPECT_EQ(ids, (std::set<std::string>{badPath, ordinaryPath}));

  // clean → quarantine list → restore: both back, byte-identical.
  const auto clean = runAgentBinary(h, {"clean", "--category", "userCaches"});
  ASSERT_EQ(clean.status, 0) << clean.err;
  EXPECT_NE(clean.out.find(" to quarantine"), std::string::npos) << clean.out;
  EXPECT_FALSE(lexists(badPath));
  EXPECT_FALSE(lexists(ordinaryPath));
  const auto list = runAgentBinary(h, {"quarantine", "list"});
  ASSERT_EQ(list.status, 0) << list.err;
  EXPECT_NE(list.out.find("\t2 items\t"), std::string::npos) << list.out;
  const std::string id = list.out.substr(0, list.out.find('\t'));
  const auto restore = runAgentBinary(h, {"quarantine", "restore", id});
  EXPECT_EQ(restore.out, "Restored.\n") << restore.err;
  for (const auto& rel : {bad, ordinary}) {
    SCOPED_TRACE(rel);
    EXPECT_EQ(readText(h.path(rel + "/blob")), std::string(70000, 'x'));
  }

  // The audit log's move records decode with the exact bytes.
  std::set<std::string> moved;
  std::istringstream log(readText(h.paths().auditFile()));
  for (std::string line; std::getline(log, line);) {
    const auto e = decodeAuditLine(line);
    ASSERT_TRUE(e) << line;
    if (e->action == "quarantine" && e->success) moved.insert(e->target);
  }
  EXPECT_EQ(moved, (std::set<std::string>{badPath, ordinaryPath}));

  // Two growth snapshots with such a folder: the store keeps both, keyed by the exact name.
  h.file("Downloads/bad\xff/part", 5000);
  for (int run = 0; run < 2; ++run) {
    const auto growth = runAgentBinary(h, {"growth", "--snapshot"});
    EXPECT_EQ(growth.status, 0) << growth.err;
  }
  const auto snapshots = GrowthTracker(h.paths()).snapshots();
  ASSERT_EQ(snapshots.size(), 2u);
  for (const auto& s : snapshots)
    EXPECT_EQ(s.sizes.count(h.path("Downloads/bad\xff").string()), 1u);
}

}  // namespace
}  // namespace kestrel::test
