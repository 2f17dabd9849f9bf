// AdminQueue: no duplicates, pending bytes, and the one-prompt flush with its audit records.
#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>

#include "core/clean/AdminQueue.h"
#include "core/store/AuditLog.h"
#include "core/store/JSONStore.h"
#include "tests/support/AllowedRoot.h"
#include "tests/support/FakeTools.h"

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

TEST(AdminQueue, QueueOutlivesItsWriterWithoutDuplicates) {
  ScratchHome h;
  AdminQueue(h.paths()).enqueue(
      {adminItem("/Library/Caches/a", 10), adminItem("/Library/Caches/a", 10)});
  AdminQueue(h.paths()).enqueue({adminItem("/Library/Caches/a", 10),
                                 adminItem("/Library/Caches/b", 5),
                                 adminItem("/Library/Caches/a", 11)});  // not equal: another size
  const AdminQueue q(h.paths());  // another process reading what the others queued
  ASSERT_EQ(q.count(), 3u);
  EXPECT_EQ(q.items()[1].id, "/Library/Caches/b");
  EXPECT_EQ(q.pendingBytes(), 26);
  q.enqueue({adminItem("/Library/Caches/c", INT64_MAX)});
  EXPECT_EQ(q.pendingBytes(), INT64_MAX);
  EXPECT_EQ(q.damage(), std::nullopt);
  q.clear();
  EXPECT_EQ(q.count(), 0u);
}

TEST(AdminQueue, DamagedQueueIsKeptUntilCleared) {
  ScratchHome h;
  const fs::path file = h.paths().adminQueueFile();
  fs::create_directories(file.parent_path());
  std::ofstream(file) << "[{\"id\": ";
  const AdminQueue q(h.paths());
  EXPECT_THROW(q.enqueue({adminItem("/Library/Caches/a", 10)}), JSONStore::StoreError);
  PrivilegedSession session(h.paths());
  EXPECT_THROW(q.flush(AppConfig{}, session, Date{}), JSONStore::StoreError);
  EXPECT_EQ(test::readText(file), "[{\"id\": ");
  EXPECT_TRUE(q.damage());
  EXPECT_EQ(q.count(), 0u);
  q.clear();
  EXPECT_EQ(q.damage(), std::nullopt);
  q.enqueue({adminItem("/Library/Caches/a", 10)});
  EXPECT_EQ(q.count(), 1u);
}

TEST(AdminQueue, DeclinedPromptKeepsEveryItemQueued) {
  ScratchHome h;
  const fs::path stays = h.text("Library/Caches/locked/item", "kept");
  Services services;
  int prompts = 0;
  services.adminPrompt = [&](const std::string&, const std::string&, double) {
    ++prompts;
    return Shell::Result{1, "", "Request dismissed"};
  };
  const AdminQueue q(h.paths());
  q.enqueue({adminItem(stays.string(), 4), adminItem(h.path("Library/Caches/gone").string(), 3)});
  PrivilegedSession session(h.paths(), services);
  const auto result = q.flush(AppConfig{}, session, Dates::fromUnixSeconds(1795371789));
  EXPECT_GE(prompts, 1);
  EXPECT_TRUE(result.removed.empty());
  EXPECT_EQ(result.alreadyGone, 1u);
  ASSERT_EQ(result.failed.size(), 1u);
  ASSERT_EQ(q.count(), 1u);  // the one still there waits for the next batch
  EXPECT_EQ(q.items()[0].id, stays.string());
  EXPECT_EQ(test::readText(stays), "kept");
  const auto audit = AuditLog(h.paths()).recent(10);
  ASSERT_EQ(audit.size(), 1u);
  EXPECT_FALSE(audit[0].success);
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
  const AdminQueue q(h.paths());
  ScanItem command;
  command.id = "docker";
  command.target = ItemTarget::forCommand({"docker", {"image", "prune"}});
  q.enqueue({adminItem((root / "one").string(), 100), adminItem((root / "two").string(), 50),
             adminItem("/usr/share/kestrel-never", 7),  // the policy refuses
             command,
             adminItem(h.path("Library/Caches/mine").string(), 10)});  // the helper refuses
  PrivilegedSession session(h.paths());
  const Date now = Dates::fromUnixSeconds(1795371789);
  auto result = q.flush(AppConfig{}, session, now);
  session.end();
  // Only what is still there and was not refused by the policy waits for another batch.
  ASSERT_EQ(q.count(), 1u);
  EXPECT_EQ(q.items()[0].id, h.path("Library/Caches/mine").string());
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
    EXPECT_EQ(e.action, AuditAction::delete_);
    EXPECT_EQ(e.trigger, TriggerSource::schedule("admin batch"));
    EXPECT_EQ(e.date, now);
    removedRecords += e.success;
  }
  EXPECT_EQ(removedRecords, 2);
}

}  // namespace
}  // namespace kestrel
