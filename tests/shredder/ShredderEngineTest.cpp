// ShredderEngine: the four rules and their edge cases, disposal, the hash cache and watching.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <fstream>
#include <memory>
#include <mutex>

#include "core/clean/Quarantine.h"
#include "core/shredder/ShredderEngine.h"
#include "tests/support/ScratchHome.h"
#include "tests/support/Wait.h"

namespace kestrel::test {
namespace {

using std::chrono::seconds;

constexpr double kSecond = 1.0 / 86400;

ShredderSettings on() {
  ShredderSettings s;
  s.approved = true;
  s.enabled = true;
  s.settleSeconds = 0;
  return s;
}

// Writes a ".trashinfo" for `name` with the given local DeletionDate.
void trashInfo(ScratchHome& h, const std::string& name, Date deleted) {
  h.text(".local/share/Trash/info/" + name + ".trashinfo",
         "[Trash Info]\nPath=/somewhere/" + name + "\nDeletionDate=" + Dates::local(deleted, "yyyy-MM-ddTHH:mm:ss") + "\n");
}

TEST(ShredderEngine, DuplicateRuleEdgeCases) {
  struct Case {
    const char* name;
    int64_t size = 5000;
    double newcomerDaysOld = 10 * kSecond;
    bool keepNewest = false;
    const char* ext = "zip";
    bool approved = true;
    const char* disposed;  // "new", "old" or "none"
    bool reviewed = false;
    bool hardLink = false;  // the newcomer is a second name of the first file
  } cases[] = {
      {"4,096 bytes never count", 4096, 10 * kSecond, false, "zip", true, "none"},
      {"4,097 bytes count", 4097, 10 * kSecond, false, "zip", true, "new"},
      {"3 seconds old is unsettled even with settleSeconds 0", 5000, 3 * kSecond, false, "zip", true, "none"},
      {"keep the newest", 5000, 10 * kSecond, true, "zip", true, "old"},
      {"skip list goes to review", 5000, 10 * kSecond, false, "mp4", true, "none", true},
      {"partial downloads are never looked at", 5000, 10 * kSecond, false, "crdownload", true, "none"},
      {"enabled but not approved does nothing", 5000, 10 * kSecond, false, "zip", false, "none"},
      {"a hard link frees nothing", 5000, 10 * kSecond, false, "zip", true, "none", false, true},
      {"a hard link frees nothing, keeping the newest", 5000, 10 * kSecond, true, "zip", true, "none", false, true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    ScratchHome h;
    const Date now = kTestNow;
    const std::string oldRel = std::string("Downloads/movie.") + c.ext;
    const std::string newRel = std::string("Downloads/movie (1).") + c.ext;
    const fs::path old = h.file(oldRel, c.size);
    const fs::path fresh = c.hardLink ? h.path(newRel) : h.file(newRel, c.size);
    if (c.hardLink) fs::create_hard_link(old, fresh);
    h.age(oldRel, 2, now);
    if (!c.hardLink) h.age(newRel, c.newcomerDaysOld, now);
    ShredderSettings s = on();
    s.keepNewest = c.keepNewest;
    s.approved = c.approved;
    ShredderEngine engine(h.linuxPaths(), {}, s);
    const auto events = engine.sweep(now).events;
    const std::string expect = c.disposed;
    EXPECT_EQ(events.size(), expect == "none" ? 0u : 1u);
    EXPECT_EQ(fs::exists(fresh), expect != "new");
    EXPECT_EQ(fs::exists(old), expect != "old");
    if (!events.empty()) {
      const auto& kept = expect == "new" ? old : fresh;
      EXPECT_EQ(events[0].twinPath, kept.string());
      EXPECT_EQ(events[0].reason, "Byte-identical to " + kept.filename().string() + ", which you already had");
      EXPECT_EQ(events[0].size, c.size);
      EXPECT_EQ(ShredHistory(h.linuxPaths()).events().size(), 1u);
    }
    const auto review = ShredReviewQueue(h.linuxPaths()).all();
    ASSERT_EQ(review.size(), c.reviewed ? 1u : 0u);
    if (c.reviewed) {
      EXPECT_EQ(review[0].path, fresh.string());
      EXPECT_EQ(review[0].reason, "Identical to movie.mp4, but .mp4 is on your skip list");
    }
    if (!c.approved) {
      EXPECT_FALSE(fs::exists(h.linuxPaths().shredderIndexFile()));
    }
  }
}

TEST(ShredderEngine, AgedRulesAndTheTrash) {
  struct Case {
    const char* name;
    std::string rel;
    int64_t bytes;
    double daysOld;
    bool gone;
  } cases[] = {
      // Sizes differ so that no two files are duplicates of each other.
      {"old disk image", "Downloads/tool.dmg", 10001, 20, true},
      {"young disk image", "Downloads/new.dmg", 10002, 3, false},
      {"old disk image over the size cap", "Downloads/huge.dmg", 3 << 20, 20, false},
      {"old Debian package", "Downloads/tool.deb", 10003, 20, true},
      {"an AppImage is a program, not an installer", "Downloads/Tool.AppImage", 10004, 20, false},
      {"old screenshot on the Desktop", "Desktop/Screenshot from 2024-01-01.png", 10005, 20, true},
      {"other old file", "Desktop/notes.txt", 10006, 20, false},
  };
  ScratchHome h;
  const Date now = kTestNow;
  for (const auto& c : cases) h.aged(c.rel, c.bytes, c.daysOld, now);
  // Trash items: any size is deleted once it has been in the Trash long enough, by its record.
  h.file(".local/share/Trash/files/big.iso", 3 << 20);
  trashInfo(h, "big.iso", now - std::chrono::hours(24 * 40));
  h.file(".local/share/Trash/files/old-photo.jpg", 100);  // two years old, trashed today
  h.age(".local/share/Trash/files/old-photo.jpg", 730, now);
  trashInfo(h, "old-photo.jpg", now - std::chrono::minutes(1));
  h.file(".local/share/Trash/files/no-record.txt", 100);  // no record: its status change is now
  h.age(".local/share/Trash/files/no-record.txt", 730, now);

  ShredderSettings s = on();
  s.maxAutoSizeMB = 1;
  s.tidyScreenshotsAfterDays = 10;
  ShredderEngine engine(h.linuxPaths(), {}, s);
  const auto events = engine.sweep(now).events;
  for (const auto& c : cases) EXPECT_EQ(fs::exists(h.path(c.rel)), !c.gone) << c.name;
  EXPECT_FALSE(lexists(h.path(".local/share/Trash/files/big.iso")));
  EXPECT_FALSE(lexists(h.path(".local/share/Trash/info/big.iso.trashinfo")));
  EXPECT_TRUE(fs::exists(h.path(".local/share/Trash/files/old-photo.jpg")));
  EXPECT_TRUE(fs::exists(h.path(".local/share/Trash/files/no-record.txt")));
  ASSERT_EQ(events.size(), 4u);
  EXPECT_EQ(events[0].reason, "Installer sitting unused for 14+ days");
  EXPECT_EQ(events[2].reason, "Screenshot older than 10 days");
  EXPECT_EQ(events[3].rule, "Trash");
  EXPECT_EQ(events[3].reason, "In the Trash for 30+ days");
  EXPECT_FALSE(events[3].restorable);
  EXPECT_GE(events[3].size, 3 << 20);
}

TEST(ShredderEngine, QuarantinedDuplicateRestoresAndDeletionIsFinal) {
  for (bool quarantineFirst : {true, false}) {
    SCOPED_TRACE(quarantineFirst);
    ScratchHome h;
    const Date now = kTestNow;
    h.aged("Downloads/a.zip", 8000, 1, now);
    const fs::path copy = h.aged("Downloads/a (1).zip", 8000, 0.5, now);
    ShredderSettings s = on();
    s.quarantineFirst = quarantineFirst;
    ShredderEngine engine(h.linuxPaths(), {}, s);
    const auto events = engine.sweep(now).events;
    ASSERT_EQ(events.size(), 1u);
    EXPECT_FALSE(fs::exists(copy));
    EXPECT_EQ(events[0].quarantineSession.has_value(), quarantineFirst);
    if (!quarantineFirst) continue;
    Quarantine q(h.linuxPaths());
    const auto sessions = q.sessions();
    ASSERT_EQ(sessions.size(), 1u);
    EXPECT_EQ(sessions[0].trigger, TriggerSource::schedule("Shredder · Duplicate download"));
    EXPECT_TRUE(q.restore(*events[0].quarantineSession, now).empty());
    EXPECT_EQ(fs::file_size(copy), 8000u);
  }
}

TEST(ShredderEngine, ReadsOnlyFilesThatMayHaveATwinAndNeverTheSameFileTwice) {
  ScratchHome h;
  const Date now = kTestNow;
  h.file("Downloads/unique.bin", 9000);
  h.text("Downloads/same-size-1.txt", std::string(6000, 'a'));
  h.text("Downloads/same-size-2.txt", std::string(6000, 'b'));
  for (const char* rel : {"Downloads/unique.bin", "Downloads/same-size-1.txt", "Downloads/same-size-2.txt"})
    h.age(rel, 1, now);
  {
    ShredderEngine engine(h.linuxPaths(), {}, on());
    EXPECT_TRUE(engine.sweep(now).events.empty());
    EXPECT_EQ(engine.counters().filesHashed, 2u);
    EXPECT_EQ(engine.counters().bytesHashed, 12000u);
    EXPECT_TRUE(engine.sweep(now).events.empty());
    EXPECT_EQ(engine.counters().bytesHashed, 12000u);
  }
  // A new engine (a new process) finds the hashes in the cache.
  ShredderEngine again(h.linuxPaths(), {}, on());
  EXPECT_TRUE(again.sweep(now).events.empty());
  EXPECT_EQ(again.counters().bytesHashed, 0u);
  // A file rewritten in place is read again.
  h.text("Downloads/same-size-2.txt", std::string(6000, 'c'));
  h.age("Downloads/same-size-2.txt", 1, now);
  EXPECT_TRUE(again.sweep(now).events.empty());
  EXPECT_EQ(again.counters().bytesHashed, 6000u);
  // Two copies read side by side: the newer goes without either being read a second time.
  h.text("Downloads/disk.iso", std::string(7000, 'q'));
  h.text("Downloads/disk (1).iso", std::string(7000, 'q'));
  h.age("Downloads/disk.iso", 2, now);
  h.age("Downloads/disk (1).iso", 1, now);
  const auto before = again.counters();
  const auto events = again.sweep(now).events;
  ASSERT_EQ(events.size(), 1u);
  EXPECT_EQ(fs::path(events[0].path).filename(), "disk (1).iso");
  EXPECT_EQ(again.counters().bytesHashed - before.bytesHashed, 14000u);
  EXPECT_EQ(again.counters().bytesCompared, before.bytesCompared);
}

TEST(ShredderEngine, ACopyIsDisposedOfOnlyWhileItsTwinStillHoldsTheSameBytes) {
  ScratchHome h;
  const Date now = kTestNow;
  const fs::path kept = h.text("Downloads/report.pdf", std::string(6000, 'x'));
  h.text("Downloads/other.pdf", std::string(6000, 'o'));
  for (const char* rel : {"Downloads/report.pdf", "Downloads/other.pdf"}) h.age(rel, 3, now);
  ShredderEngine engine(h.linuxPaths(), {}, on());
  EXPECT_TRUE(engine.sweep(now).events.empty());  // both are in the index now
  // The user edits the file the index remembers, then downloads its old content again.
  h.text("Downloads/report.pdf", std::string(5999, 'x') + "!");
  h.age("Downloads/report.pdf", 2, now);
  const fs::path again = h.text("Downloads/report (1).pdf", std::string(6000, 'x'));
  h.age("Downloads/report (1).pdf", 1, now);
  EXPECT_TRUE(engine.sweep(now).events.empty());
  EXPECT_EQ(test::readText(kept), std::string(5999, 'x') + "!");
  EXPECT_EQ(test::readText(again), std::string(6000, 'x'));
  EXPECT_GT(engine.counters().bytesCompared, 0u);
}

TEST(ShredderEngine, AnApprovedCandidateGoesOnlyWhileItsTwinIsThere) {
  for (const bool twinGone : {false, true}) {
    SCOPED_TRACE(twinGone ? "twin gone" : "twin there");
    ScratchHome h;
    h.aged("Downloads/clip.mov", 7000, 2, kTestNow);
    const fs::path copy = h.aged("Downloads/clip (1).mov", 7000, 1, kTestNow);
    ShredderEngine engine(h.linuxPaths(), {}, on());
    EXPECT_TRUE(engine.sweep(kTestNow).events.empty());  // a video: held for review
    ShredReviewQueue queue(h.linuxPaths());
    ASSERT_EQ(queue.all().size(), 1u);
    const ShredCandidate candidate = queue.all()[0];
    if (twinGone) fs::remove(candidate.twinPath);  // this one may be the last copy now
    const auto e = engine.shredCandidate(candidate, kTestNow);
    EXPECT_EQ(e.has_value(), !twinGone);
    EXPECT_EQ(fs::exists(copy), twinGone);
    EXPECT_TRUE(queue.all().empty());
    EXPECT_EQ(e ? e->reason : "", twinGone ? "" : "You approved it: identical to clip.mov");
  }
  // Nothing outside the watched folders is ever disposed of.
  ScratchHome h;
  ShredderEngine engine(h.linuxPaths(), {}, on());
  const fs::path outside = h.file("Documents/x.zip", 5000);
  EXPECT_FALSE(engine.shred(outside, ShredRule::duplicate, "r", std::nullopt, 5000, kTestNow));
  EXPECT_TRUE(fs::exists(outside));
}

// A watcher the test drives by hand: what it watches, and the changes it reports.
class FakeWatcher : public FolderWatcher {
 public:
  struct Shared {
    std::mutex lock;
    std::vector<fs::path> folders;
    OnChange onChange;
  };
  explicit FakeWatcher(std::shared_ptr<Shared> shared) : shared_(std::move(shared)) {}
  size_t watch(const std::vector<fs::path>& folders, OnChange onChange) override {
    std::lock_guard<std::mutex> guard(shared_->lock);
    shared_->folders = folders;
    shared_->onChange = std::move(onChange);
    return folders.size();
  }
  void stop() noexcept override {
    std::lock_guard<std::mutex> guard(shared_->lock);
    shared_->onChange = nullptr;
  }

 private:
  std::shared_ptr<Shared> shared_;
};

TEST(ShredderEngine, ADroppedNotificationLeadsToOneFullSweep) {
  ScratchHome h;
  h.aged("Downloads/a.zip", 6000, 2, kTestNow);
  const fs::path copy = h.aged("Desktop/a (1).zip", 6000, 1, kTestNow);
  h.aged("Desktop/a.zip", 6000, 2, kTestNow);
  auto shared = std::make_shared<FakeWatcher::Shared>();
  Services services;  // the watch thread sweeps at the clock it is given
  services.now = [] { return kTestNow; };
  services.makeFolderWatcher = [shared] { return std::make_unique<FakeWatcher>(shared); };
  ShredderEngine engine(h.linuxPaths(), {}, on(), services);
  engine.setDebounce(std::chrono::milliseconds(50));
  std::atomic<size_t> reported{0};
  engine.startWatching([&](const SweepResult& r) { reported += r.events.size(); });
  FolderWatcher::OnChange fire;
  {
    std::lock_guard<std::mutex> guard(shared->lock);
    EXPECT_EQ(shared->folders, (std::vector<fs::path>{h.path("Downloads"), h.path("Desktop")}));
    fire = shared->onChange;
  }
  ASSERT_TRUE(fire);
  fire({{}, true});  // the queue overflowed: nothing says where
  EXPECT_TRUE(waitFor([&] { return reported.load() == 1; }, 5));
  EXPECT_FALSE(fs::exists(copy));
  EXPECT_EQ(engine.counters().sweeps, 1u);
  engine.stopWatching();
}

TEST(ShredderEngine, TwentyQuickChangesMakeOneSweep) {
  ScratchHome h;
  h.folder("Downloads");
  ShredderEngine engine(h.linuxPaths(), {}, on());
  engine.setDebounce(std::chrono::milliseconds(300));
  engine.startWatching(nullptr);
  for (int i = 0; i < 20; ++i) h.file("Downloads/part" + std::to_string(i) + ".txt", 10);
  EXPECT_TRUE(waitFor([&] { return engine.counters().sweeps >= 1; }, 5));
  EXPECT_FALSE(waitFor([&] { return engine.counters().sweeps >= 2; }, 1));
  engine.stopWatching();
}

TEST(ShredderEngine, AFreshDuplicateIsSweptAgainOnceItHasSettled) {
  ScratchHome h;
  const Date start = std::chrono::system_clock::now();
  h.file("Downloads/report.pdf", 9000);
  h.age("Downloads/report.pdf", 1, start);
  ShredderEngine engine(h.linuxPaths(), {}, on());
  engine.setDebounce(std::chrono::milliseconds(100));
  std::atomic<int> disposed{0};
  engine.startWatching([&](const SweepResult& r) { disposed += static_cast<int>(r.events.size()); });
  // The download lands 2 seconds after it was written (a browser renaming its partial file).
  const fs::path staged = h.outside("stage") / "staged.pdf";
  std::ofstream(staged) << std::string(9000, 'x');
  const Date written = std::chrono::system_clock::now() - seconds(2);
  const timespec times[2] = {{Dates::unixSeconds(written), 0}, {Dates::unixSeconds(written), 0}};
  ASSERT_EQ(::utimensat(AT_FDCWD, staged.c_str(), times, AT_SYMLINK_NOFOLLOW), 0);
  fs::rename(staged, h.path("Downloads/report (1).pdf"));
  // Settled 4 s after it was written; disposed of by second 4 + 6 with no timer at all.
  EXPECT_TRUE(waitFor([&] { return disposed.load() == 1; }, 8));
  EXPECT_LE(std::chrono::system_clock::now() - written, seconds(10));
  EXPECT_EQ(engine.counters().sweeps, 2u);
  EXPECT_FALSE(fs::exists(h.path("Downloads/report (1).pdf")));
  engine.stopWatching();
}

}  // namespace
}  // namespace kestrel::test
