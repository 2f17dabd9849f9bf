// AdminQueue: no duplicates, pending bytes, and the one-prompt flush with its audit records.
#include "core/clean/AdminQueue.h"

#include "core/store/AuditLog.h"
#include "tests/support/AllowedRoot.h"
#include "tests/support/FakeTools.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>

namespace kestrel {
namespace {

using test::FakeTools;
using test::ScratchHome;
namespace fs = std::filesystem;

ScanItem adminItem(const std::string& path, int64_t size) {
  ScanItem i;
  i.id = path;
  i.title = fs::path(path).filename();
  i.target = ItemTarget::forAdminPath(path);
  i.size = size;
  i.category = CleanCategory::userCaches;
  return i;
}

TEST(AdminQueue, EnqueueSkipsEqualItemsAndSumsSizes) {
  AdminQueue q;
  q.enqueue(adminItem("/Library/Caches/a", 10));
  q.enqueue(adminItem("/Library/Caches/a", 10));
  q.enqueue(adminItem("/Library/Caches/b", 5));
  q.enqueue(adminItem("/Library/Caches/a", 11));  // not equal: another size
  EXPECT_EQ(q.count(), 3u);
  EXPECT_EQ(q.pendingBytes(), 26);
  q.enqueue(adminItem("/Library/Caches/c", INT64_MAX));
  EXPECT_EQ(q.pendingBytes(), INT64_MAX);
}

TEST(AdminQueue, FlushRemovesWithOnePromptAndAuditsEachItem) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root for an allowed system location";
  ScratchHome h;
  FakeTools tools(h.root());
  tools.script("pkexec", "printf 'call\\n' >> \"$(dirname \"$0\")/pkexec.calls\"\nexec \"$@\"");
  test::AllowedRoot allowed;
  const fs::path root = allowed.dir();
  fs::create_directories(root / "one");
  std::ofstream(root / "one" / "f") << "data";
  std::ofstream(root / "two") << "data";
  h.file("Library/Caches/mine", 10);
  AdminQueue q;
  q.enqueue(adminItem((root / "one").string(), 100));
  q.enqueue(adminItem((root / "two").string(), 50));
  q.enqueue(adminItem("/usr/share/kestrel-never", 7));                      // the policy refuses
  q.enqueue(adminItem(h.path("Library/Caches/mine").string(), 10));          // the helper refuses
  ScanItem command;
  command.id = "docker";
  command.target = ItemTarget::forCommand({"docker", {"image", "prune"}});
  q.enqueue(command);
  PrivilegedSession session(h.paths());
  const Date now = Dates::fromUnixSeconds(1795371789);
  auto result = q.flush(h.paths(), AppConfig{}, session, now);
  session.end();
  EXPECT_EQ(q.count(), 0u);
  ASSERT_EQ(result.removed.size(), 2u);
  EXPECT_EQ(result.freed, 150);
  ASSERT_EQ(result.failed.size(), 3u);
  EXPECT_EQ(result.failed[0].message, "System location");
  EXPECT_EQ(result.failed[1].message, "admin batch failed");
  EXPECT_EQ(result.failed[2].message, "ERR refused " + h.path("Library/Caches/mine").string());
  EXPECT_TRUE(fs::exists(h.path("Library/Caches/mine")));
  EXPECT_FALSE(fs::exists(root / "one"));
  EXPECT_EQ(std::count(std::istreambuf_iterator<char>(std::ifstream(tools.bin() / "pkexec.calls").rdbuf()), {}, '\n'), 1);
  auto audit = AuditLog(h.paths()).recent(10);
  ASSERT_EQ(audit.size(), 3u);
  int removedRecords = 0;
  for (const auto& e : audit) {
    EXPECT_EQ(e.action, "delete");
    EXPECT_EQ(e.trigger, TriggerSource::schedule("admin batch"));
    EXPECT_EQ(e.date, now);
    removedRecords += e.success;
  }
  EXPECT_EQ(removedRecords, 2);
}

}  // namespace
}  // namespace kestrel
