// Audit log and the JSON lines under it: record forms, appends (torn tails, several processes,
// odd files), tolerant reads both ways, lifetime total.
#include "core/base/UniqueFd.h"
#include "core/store/AuditLog.h"
#include "core/store/JSONStore.h"
#include "core/store/JsonLines.h"
#include "tests/support/Processes.h"
#include "tests/support/ScratchHome.h"

#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

namespace kestrel {
namespace {

using test::ScratchHome;

const Date kNow = Dates::fromUnixSeconds(1772357400);  // 2026-03-01T09:30:00Z
constexpr const char* kId = "E621E1F8-C36C-495A-93FC-0C247A3E6E5F";

AuditEntry entry(AuditAction action, int64_t size, bool success = true) {
  AuditEntry e = AuditEntry::of(action, "/Users/me/Library/Caches/x", kNow)
                     .bytes(size)
                     .in(CleanCategory::userCaches)
                     .by(TriggerSource::manual())
                     .outcome(success);
  e.id = kId;
  return e;
}

void appendRaw(const fs::path& file, const std::string& text) {
  fs::create_directories(file.parent_path());
  std::ofstream(file, std::ios::binary | std::ios::app) << text;
}

std::vector<std::string> lines(const std::string& text) {
  std::vector<std::string> out;
  std::istringstream in(text);
  for (std::string l; std::getline(in, l);) out.push_back(l);
  return out;
}

TEST(AuditEntry, LineFormAndRoundTrips) {
  const AuditEntry full{kId, kNow + std::chrono::milliseconds(900), AuditAction::delete_, "/Users/me/Library/Caches/é x", 4096,
                        CleanCategory::logs, TriggerSource::schedule("Weekly deep clean"), false, "Permission denied"};
  const std::string text = JsonText::compact(toJson(full));
  EXPECT_EQ(text, R"({"action":"delete","category":"logs","date":"2026-03-01T09:30:00Z","id":")" + std::string(kId) +
                      R"(","message":"Permission denied","size":4096,"success":false,)"
                      R"("target":"\/Users\/me\/Library\/Caches\/é x","trigger":{"schedule":{"ruleName":"Weekly deep clean"}}})");
  AuditEntry expected = full;
  expected.date = kNow;  // whole seconds on disk
  EXPECT_EQ(decodeAuditLine(text), expected);
  const AuditEntry bare{kId, kNow, AuditAction::purge, "expired quarantine", 10, std::nullopt, TriggerSource::manual(), true,
                        std::nullopt};
  EXPECT_EQ(decodeAuditLine(JsonText::compact(toJson(bare))), bare);
}

TEST(AuditLog, AppendCreatesFileOnlyWhenThereIsSomethingToWrite) {
  ScratchHome h;
  AuditLog log(h.paths());
  log.append({});
  EXPECT_FALSE(fs::exists(log.url().parent_path()));
  log.append({entry(AuditAction::delete_, 1), entry(AuditAction::trash, 2)});
  EXPECT_EQ(lines(test::readText(log.url())).size(), 2u);
  EXPECT_EQ((fs::status(log.url()).permissions() & fs::perms::all),
            fs::perms::owner_read | fs::perms::owner_write);
  EXPECT_EQ(log.recent(10).size(), 2u);
  ASSERT_EQ(log.recent(1).size(), 1u);
  EXPECT_EQ(rawValue(log.recent(1)[0].action), "trash");  // newest first
  EXPECT_TRUE(log.recent(0).empty());
}

TEST(AuditLog, ReadsPastDamageAndOverlongLinesAndNeverGluesOntoATornLine) {
  ScratchHome h;
  AuditLog log(h.paths());
  log.append({entry(AuditAction::delete_, 1)});
  appendRaw(log.url(), "this is not json\n\n   \n{\"action\":\"delete\"}\n");
  appendRaw(log.url(), std::string(AuditLog::kMaxLine * 3 + 17, 'z') + "\n");
  log.append({entry(AuditAction::trash, 2)});
  // A writer killed mid-line: no line feed at the end.
  appendRaw(log.url(), JsonText::compact(toJson(entry(AuditAction::purge, 1000))).substr(0, 40));
  EXPECT_EQ(log.recent(10).size(), 2u);
  EXPECT_EQ(log.lifetimeFreed(), 3);
  log.append({entry(AuditAction::command, 4)});
  const auto all = lines(test::readText(log.url()));
  EXPECT_TRUE(decodeAuditLine(all.back()));  // the new record starts on a fresh line
  auto recent = log.recent(10);
  ASSERT_EQ(recent.size(), 3u);
  EXPECT_EQ(rawValue(recent[0].action), "command");
  EXPECT_EQ(rawValue(recent[2].action), "delete");
  EXPECT_EQ(log.lifetimeFreed(), 7);
}

TEST(AuditLog, LifetimeFreedCountsOnlySuccessfulRemovals) {
  const struct Case {
    const char* what;
    std::vector<AuditEntry> entries;
    int64_t expected;
  } cases[] = {
      {"the four counted actions",
       {entry(AuditAction::delete_, 1), entry(AuditAction::trash, 10), entry(AuditAction::command, 100), entry(AuditAction::purge, 1000)},
       1111},
      {"quarantine, restore, failures and other cases do not count",
       {entry(AuditAction::quarantine, 5), entry(AuditAction::restore, 5), entry(AuditAction::delete_, 50, false), entry(AuditAction::delete_, 1)},
       1},
      {"negative sizes are summed as given", {entry(AuditAction::delete_, -5), entry(AuditAction::delete_, 8)}, 3},
      {"an overflowing record is skipped",
       {entry(AuditAction::delete_, INT64_MAX), entry(AuditAction::delete_, 1), entry(AuditAction::trash, 2)},
       INT64_MAX},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    ScratchHome h;
    AuditLog log(h.paths());
    log.append(c.entries);
    EXPECT_EQ(log.lifetimeFreed(), c.expected);
  }
  ScratchHome empty;
  EXPECT_EQ(AuditLog(empty.paths()).lifetimeFreed(), 0);
}

TEST(AuditLog, FastCountAgreesWithTheFullDecoderOnOddLines) {
  // Each line is alone in a log; the expected total is what the full decoder says it is worth.
  const std::string base = JsonText::compact(toJson(AuditEntry{
      kId, kNow, AuditAction::delete_, "/x", 7, std::nullopt, TriggerSource::manual(), true, std::nullopt}));
  auto with = [&](const std::string& from, const std::string& to) {
    std::string s = base;
    s.replace(s.find(from), from.size(), to);
    return s;
  };
  const std::string cases[] = {
      base,
      with("\"size\":7", "\"size\":7.5"),
      with("\"size\":7", "\"size\":07"),
      with("\"size\":7", "\"size\":1e3"),
      with("\"size\":7", "\"size\":99999999999999999999"),
      with("\"action\":\"delete\"", "\"action\":\"del\\u0065te\""),
      with("\"action\":\"delete\"", "\"action\":\"delete\",\"action\":\"restore\""),
      with("\"target\":\"\\/x\"", "\"target\":\"caf\xC3\xA9 \\\"q\\\"\""),
      with("\"target\":\"\\/x\"", "\"target\":\"bad \xC3\x28 utf8\""),
      with("\"target\":\"\\/x\"", "\"target\":\"bad \\udc7f\""),
      with("\"target\":\"\\/x\"", "\"target\":\"ctl \x01\""),
      with("\"target\":\"\\/x\"", "\"target\":null"),
      with("\"trigger\":{\"manual\":{}}", "\"trigger\":{\"manual\":{},\"x\":{}}"),
      with("\"trigger\":{\"manual\":{}}", "\"trigger\": { \"manual\" : { } }"),
      with("\"id\":\"E621", "\"id\":\"X621"),
      with("\"date\":\"2026-03-01T09:30:00Z\"", "\"date\":\"2026-03-01 09:30\""),
      with("\"success\":true", "\"success\":1"),
      with(",\"success\":true", ""),
      with("\"success\":true", "\"success\":true,\"category\":\"nonsense\""),
      with("\"success\":true", "\"success\":true,\"message\":null,\"extra\":[1,2]"),
      base + "x",
      " " + base,
  };
  for (const auto& line : cases) {
    SCOPED_TRACE(line);
    auto full = decodeAuditLine(line);
    const int64_t expected = full && full->success && full->action == AuditAction::delete_ ? full->size : 0;
    ScratchHome h;
    AuditLog log(h.paths());
    appendRaw(log.url(), line + "\n");
    EXPECT_EQ(log.lifetimeFreed(), expected);
  }
}

TEST(AuditLog, FollowsALinkAndUsesOnlyARegularFile) {
  enum class Put { linkToFile, fifo, fifoWithReader, linkToFifo, folder, danglingLink };
  const struct Case {
    const char* what;
    Put put;
  } cases[] = {
      {"a link to a file elsewhere", Put::linkToFile}, {"a FIFO", Put::fifo},
      {"a FIFO someone reads", Put::fifoWithReader}, {"a link to a FIFO", Put::linkToFifo},
      {"a folder", Put::folder}, {"a link that leads nowhere", Put::danglingLink},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    ScratchHome h;
    AuditLog log(h.paths());
    const fs::path elsewhere = h.outside("dotfiles") / "audit.jsonl";
    fs::create_directories(log.url().parent_path());
    UniqueFd reader;
    switch (c.put) {
      case Put::linkToFile:
        appendRaw(elsewhere, JsonText::compact(toJson(entry(AuditAction::trash, 5))) + "\n");
        fs::create_symlink(elsewhere, log.url());
        break;
      case Put::fifo:
      case Put::fifoWithReader:
        ASSERT_EQ(::mkfifo(log.url().c_str(), 0600), 0);
        if (c.put == Put::fifoWithReader)
          reader.reset(::open(log.url().c_str(), O_RDONLY | O_NONBLOCK));
        break;
      case Put::linkToFifo:
        ASSERT_EQ(::mkfifo(elsewhere.c_str(), 0600), 0);
        fs::create_symlink(elsewhere, log.url());
        break;
      case Put::folder:
        h.file("Library/Application Support/orvo Kestrel/audit.jsonl/inside", 3);
        break;
      case Put::danglingLink:
        fs::create_symlink(elsewhere, log.url());
        break;
    }
    // Each call returns at once: none of them may wait for a FIFO's other end.
    log.append({entry(AuditAction::delete_, 1)});
    if (c.put == Put::linkToFile) {
      EXPECT_TRUE(fs::is_symlink(log.url()));
      EXPECT_EQ(lines(test::readText(elsewhere)).size(), 2u);
      EXPECT_EQ(log.recent(10).size(), 2u);
      EXPECT_EQ(log.lifetimeFreed(), 6);
      continue;
    }
    EXPECT_TRUE(log.recent(10).empty());
    EXPECT_EQ(log.lifetimeFreed(), 0);
    if (reader) {
      char b;
      EXPECT_LE(::read(reader.get(), &b, 1), 0);  // nothing was written into the pipe
    }
    if (c.put == Put::folder) {
      EXPECT_EQ(test::readText(log.url() / "inside"), "xxx");
    }
    EXPECT_EQ(test::lexists(elsewhere), c.put == Put::linkToFifo);  // never made through a link
  }
}

TEST(AuditLog, NamesThatAreOnlyBytesAreCountedAndReadBack) {
  ScratchHome h;
  AuditLog log(h.paths());
  AuditEntry escaped = entry(AuditAction::delete_, 40);
  escaped.target = "/Users/me/Library/Caches/bad\xff";
  log.append({escaped});
  EXPECT_NE(test::readText(log.url()).find(R"(Caches\/bad\udcff")"), std::string::npos);
  // A record as earlier versions wrote it, with the raw byte.
  AuditEntry raw = entry(AuditAction::trash, 2);
  raw.target = "/Users/me/raw\xfe";
  appendRaw(log.url(),
            "{\"action\":\"trash\",\"date\":\"2026-03-01T09:30:00Z\",\"id\":\"" + raw.id +
                "\",\"size\":2,\"success\":true,\"target\":\"/Users/me/raw\xfe\","
                "\"trigger\":{\"manual\":{}}}\n");
  EXPECT_EQ(log.lifetimeFreed(), 42);
  const auto recent = log.recent(10);
  ASSERT_EQ(recent.size(), 2u);
  EXPECT_EQ(recent[0].target, raw.target);
  EXPECT_EQ(recent[1].target, escaped.target);
}

TEST(AuditLog, ConcurrentProcessesLeaveWholeLines) {
  ScratchHome h;
  constexpr int kProcesses = 8, kRecords = 1000;
  const auto writer = [&](int p) {
    AuditLog log(h.paths());
    for (int i = 0; i < kRecords; ++i) {
      AuditEntry e = entry(AuditAction::delete_, 1);
      e.target = "process " + std::to_string(p) + " record " + std::to_string(i) +
                 std::string(static_cast<size_t>(i % 300), 'p');
      log.append({e});
    }
  };
  EXPECT_EQ(test::inChildProcesses(kProcesses, writer), kProcesses);
  AuditLog log(h.paths());
  // A writer that looks at the last byte while another's record is still landing starts its own
  // with a spare line feed: blank lines are allowed (and skipped), torn or merged ones are not.
  auto all = lines(test::readText(log.url()));
  std::erase(all, std::string());
  EXPECT_EQ(all.size(), static_cast<size_t>(kProcesses * kRecords));
  size_t decodable = 0;
  for (const auto& l : all) decodable += decodeAuditLine(l).has_value();
  EXPECT_EQ(decodable, static_cast<size_t>(kProcesses * kRecords));
  EXPECT_EQ(log.lifetimeFreed(), kProcesses * kRecords);
  EXPECT_EQ(log.recent(100000).size(), static_cast<size_t>(kProcesses * kRecords));
}

TEST(JsonLines, TakesAndSkipsTheSameLinesBothWays) {
  const std::string tooLong(JsonLines::kMaxLine + 1, 'x');
  struct Case {
    std::string name, text;
    std::vector<std::string> forward;  // taken lines, oldest first
    size_t skipped;
  };
  const std::vector<Case> cases = {
      {"empty file", "", {}, 0},
      {"blank lines are neither", "\n  \n\t\r\n", {}, 0},
      {"plain records", "a\nb\n", {"a", "b"}, 0},
      {"torn last line still offered", "a\nb", {"a", "b"}, 0},
      {"rejected line counted", "a\nbad\nb\n", {"a", "b"}, 1},
      {"overlong line counted, never offered", "a\n" + tooLong + "\nb\n", {"a", "b"}, 1},
      {"overlong last line", "a\n" + tooLong, {"a"}, 1},
      {"overlong first line", tooLong + "\na\n", {"a"}, 1},
  };
  test::ScratchHome h;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const auto file = h.path("lines.jsonl");
    std::ofstream(file, std::ios::binary | std::ios::trunc) << c.text;
    const JsonLines lines(file);
    auto take = [](std::vector<std::string>& into) {
      return [&into](std::string_view l) {
        EXPECT_LE(l.size(), JsonLines::kMaxLine);
        if (l == "bad") return false;
        into.emplace_back(l);
        return true;
      };
    };
    std::vector<std::string> forward, backward;
    const auto f = lines.readAll(take(forward));
    const auto b = lines.readNewestFirst(100, take(backward));
    EXPECT_EQ(forward, c.forward);
    EXPECT_EQ(std::vector<std::string>(backward.rbegin(), backward.rend()), c.forward);
    EXPECT_EQ(f.taken, c.forward.size());
    EXPECT_EQ(f.skipped, c.skipped);
    EXPECT_EQ(b.skipped, c.skipped);
  }
}

TEST(JsonLines, NewestFirstStopsAtTheLimitAndMissingFileReadsNothing) {
  test::ScratchHome h;
  const JsonLines lines(h.path("sub/lines.jsonl"));
  EXPECT_EQ(lines.readAll([](std::string_view) { return true; }).taken, 0u);
  ASSERT_TRUE(lines.append({"1", "2", "3", "4"}, false));
  std::vector<std::string> seen;
  const auto count = lines.readNewestFirst(2, [&](std::string_view l) {
    seen.emplace_back(l);
    return true;
  });
  EXPECT_EQ(seen, (std::vector<std::string>{"4", "3"}));
  EXPECT_EQ(count.taken, 2u);
}

}  // namespace
}  // namespace kestrel
