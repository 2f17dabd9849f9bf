// End to end: kestrel as people and scripts use it. The preview is what the run removes, nothing
// goes without an answer, a dry run leaves the disk as it was, colour follows the terminal and
// NO_COLOR, progress stays on standard error, every --json has the documented shape, and the Trash
// lists what the freedesktop tools list.
#include <gtest/gtest.h>

#include <map>
#include <set>

#include "core/base/Text.h"
#include "core/store/AuditLog.h"
#include "core/system/process/Shell.h"
#include "tests/e2e/RunAgent.h"

namespace kestrel::test {
namespace {

const std::vector<std::string> kLinux = {"KESTREL_LAYOUT=linux"};

// A Linux home with logs (to quarantine, by its settings), caches (deleted) and the Trash (review).
void junk(ScratchHome& h) {
  h.text(".config/orvo-kestrel/config.json", R"({"disposalOverrides": {"logs": "quarantine"}})");
  h.folder(".local/state/orvo-kestrel");
  h.aged(".local/state/app/old.log", 40000, 10);
  h.aged(".xsession-errors.old", 30000, 10);
  h.oldFolder(".cache/app", 100000, 10);
  h.text(".local/share/Trash/files/draft.txt", "draft");
  h.text(".local/share/Trash/info/draft.txt.trashinfo",
         "[Trash Info]\nPath=" + h.path("draft.txt").string() + "\nDeletionDate=2026-01-01T10:00:00\n");
}

Json parsed(const AgentRun& r) {
  auto j = JsonText::parse(r.out);
  EXPECT_TRUE(j) << r.out << r.err;
  return j.value_or(Json::object());
}

// Runs `command` (a shell command line) with a terminal for every standard stream, typing `input`.
Shell::Result onTerminal(const std::string& command, const std::string& input = "") {
  return Shell::run("/bin/bash", {"-c", "printf %s \"$1\" | script -qec \"$2\" /dev/null", "bash", input, command}, 60);
}

std::string inHome(const ScratchHome& h, const std::string& env, const std::string& args) {
  return "HOME=" + Text::shellQuote(h.home().string()) + " KESTREL_LAYOUT=linux " + env + " " +
         Text::shellQuote(KESTREL_HOST_BINARY) + " " + args;
}

TEST(FrontDoorBinary, ThePreviewIsWhatTheRunRemoves) {
  ScratchHome h;
  junk(h);
  const std::vector<std::string> clean = {"--json", "clean", "logs", "userCaches", "trash", "--max-risk", "review"};
  auto args = clean;
  args.push_back("--dry-run");
  const Json preview = parsed(runHostBinary(h, args, kLinux));
  std::set<std::pair<std::string, std::string>> planned;  // path, fate
  for (const auto& item : preview["items"])
    planned.insert({item["path"].get<std::string>(), item["fate"].get<std::string>()});
  ASSERT_EQ(planned.size(), 4u) << preview;
  EXPECT_EQ(planned.count({h.path(".xsession-errors.old").string(), "quarantine"}), 1u);
  EXPECT_EQ(planned.count({h.path(".local/share/Trash/files/draft.txt").string(), "delete"}), 1u);

  args = clean;
  args.push_back("--yes");
  const Json run = parsed(runHostBinary(h, args, kLinux));
  EXPECT_EQ(run["result"]["failures"].size(), 0u) << run;
  std::set<std::pair<std::string, std::string>> done;
  for (const auto& e : AuditLog(h.linuxPaths()).recent(100))
    if (e.success) done.insert({e.target, std::string(rawValue(e.action))});
  EXPECT_EQ(done, planned);
  for (const auto& [path, fate] : planned) EXPECT_FALSE(lexists(path)) << path;
}

// The whole tree but the agent's own folders (the scans' summary for the metrics lives there).
std::map<std::string, std::string> outsideTheAgent(const ScratchHome& h) {
  auto listing = treeListing(h.root());
  std::erase_if(listing, [](const auto& e) { return e.first.find("orvo-kestrel") != std::string::npos; });
  return listing;
}

TEST(FrontDoorBinary, NothingGoesWithoutAnAnswerAndADryRunChangesNothing) {
  ScratchHome h;
  junk(h);
  const auto before = outsideTheAgent(h);
  const auto refused = runHostBinary(h, {"clean", "logs", "userCaches"}, kLinux);
  EXPECT_EQ(refused.status, 2);
  EXPECT_NE(refused.out.find("Deleted for good: "), std::string::npos) << refused.out;
  EXPECT_EQ(refused.err, "Nothing was removed: there is no terminal to ask on; add --yes to remove without asking.\n");
  const auto dry = runHostBinary(h, {"clean", "logs", "userCaches", "trash", "--max-risk", "caution", "--dry-run"}, kLinux);
  EXPECT_EQ(dry.status, 0);
  EXPECT_NE(dry.out.find("Dry run: nothing was removed.\n"), std::string::npos) << dry.out;
  // Answered no on a terminal: nothing either.
  const auto declined = onTerminal(inHome(h, "", "clean logs"), "n\n");
  EXPECT_NE(declined.stdout.find("Nothing was removed."), std::string::npos) << declined.stdout;
  EXPECT_EQ(outsideTheAgent(h), before);
}

TEST(FrontDoorBinary, ColourFollowsTheTerminalAndNoColorAndProgressStaysOnStandardError) {
  ScratchHome h;
  junk(h);
  const struct Case {
    const char* env;
    const char* options;
    bool escapes;
  } cases[] = {{"", "", true}, {"NO_COLOR=1", "", false}, {"NO_COLOR=1", "--color always", true},
               {"", "--color never", false}};
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.env) + " " + c.options);
    const auto r = onTerminal(inHome(h, c.env, std::string(c.options) + " scan --details"));
    EXPECT_EQ(r.status, 0) << r.stdout;
    EXPECT_EQ(r.stdout.find('\x1b') != std::string::npos, c.escapes) << r.stdout;
  }
  EXPECT_EQ(runHostBinary(h, {"scan"}, kLinux).out.find('\x1b'), std::string::npos) << "no terminal, no colour";
  // Progress is drawn on the terminal while the JSON goes whole through the pipe.
  const auto piped = onTerminal(inHome(h, "", "scan --json | jq -r .schema"));
  EXPECT_NE(piped.stdout.find("kestrel.scan/1"), std::string::npos) << piped.stdout;
  EXPECT_NE(piped.stdout.find("Scanning "), std::string::npos) << piped.stdout;
}

TEST(FrontDoorBinary, EveryJsonHasTheDocumentedShape) {
  ScratchHome h;
  junk(h);
  h.text(".local/state/orvo-kestrel/space-history.json",
         R"([{"date":"2026-11-20T00:00:00Z","free":500000000000,"total":900000000000},)"
         R"({"date":"2026-11-25T00:00:00Z","free":400000000000,"total":900000000000}])");
  h.text(".local/state/orvo-kestrel/growth-snapshots.json",
         R"([{"date":"2026-11-18T00:00:00Z","sizes":{")" + h.path("Downloads").string() +
             R"(":1000}},{"date":"2026-11-25T00:00:00Z","sizes":{")" + h.path("Downloads").string() + R"(":900000000}}])");
  ASSERT_EQ(runHostBinary(h, {"clean", "logs", "--yes"}, kLinux).status, 0);
  const std::string session = parsed(runHostBinary(h, {"--json", "quarantine", "list"}, kLinux))["items"][0]["id"];
  const std::vector<std::vector<std::string>> commands = {
      {"scan", "--all"}, {"clean", "userCaches", "trash", "--max-risk", "caution", "--dry-run"},
      {"quarantine", "list"}, {"quarantine", "show", session}, {"trash", "list"}, {"forecast"}, {"growth"}};
  const fs::path schema = fs::path(KESTREL_SOURCE_DIR) / "docs/kestrel-json.schema.json";
  for (auto args : commands) {
    SCOPED_TRACE(args[0]);
    args.insert(args.begin(), "--json");
    const auto r = runHostBinary(h, args, kLinux);
    ASSERT_EQ(r.status, 0) << r.err;
    const fs::path out = h.outside("json") / (args[1] + ".json");
    h.text("../outside/json/" + args[1] + ".json", r.out);
    const auto check = Shell::run("python3", {"-c", "import json,sys,jsonschema; "
                                                    "jsonschema.validate(json.load(open(sys.argv[2])), json.load(open(sys.argv[1])))",
                                              schema.string(), out.string()}, 60);
    EXPECT_TRUE(check.ok()) << check.stderr << r.out;
    EXPECT_EQ(parsed(r)["schema"], "kestrel." + args[1] + "/1");
  }
}

TEST(FrontDoorBinary, TheTrashListsWhatTheFreedesktopToolsList) {
  if (!Shell::which("trash-put")) GTEST_SKIP() << "trash-cli is not installed";
  ScratchHome h;
  for (const char* name : {"report.odt", "with blank é.txt", "folder/inner.txt"}) h.text(std::string("Documents/") + name, "x");
  const std::vector<std::string> env = {"HOME=" + h.home().string()};
  for (const char* name : {"report.odt", "with blank é.txt", "folder"}) {
    const auto put = Shell::run("env", {env[0], "trash-put", h.path(std::string("Documents/") + name).string()}, 60);
    ASSERT_TRUE(put.ok()) << put.stderr;
  }
  const auto theirs = Shell::run("env", {env[0], "trash-list"}, 60);
  ASSERT_TRUE(theirs.ok()) << theirs.stderr;
  std::set<std::string> expected;  // "<local date> <original path>", as trash-list prints them
  for (size_t at = 0, end; at < theirs.stdout.size(); at = end + 1) {
    end = theirs.stdout.find('\n', at);
    if (end == std::string::npos) end = theirs.stdout.size();
    if (end > at) expected.insert(theirs.stdout.substr(at, end - at));
  }
  std::set<std::string> ours;
  const Json listed = parsed(runHostBinary(h, {"--json", "trash", "list"}, kLinux));
  for (const auto& e : listed["items"])
    ours.insert(Dates::local(*Dates::parseISO8601(e["deleted"].get<std::string>()), "yyyy-MM-dd HH:mm:ss") + " " +
                e["originalPath"].get<std::string>());
  EXPECT_EQ(ours, expected);
  EXPECT_EQ(ours.size(), 3u);
  // Put back where it came from, never over anything.
  EXPECT_EQ(runHostBinary(h, {"trash", "restore", "~/Documents/report.odt"}, kLinux).status, 0);
  EXPECT_EQ(readText(h.path("Documents/report.odt")), "x");
  h.text("Documents/folder", "something new");
  const auto blocked = runHostBinary(h, {"trash", "restore", h.path("Documents/folder").string()}, kLinux);
  EXPECT_EQ(blocked.status, 1);
  EXPECT_NE(blocked.err.find("Something already exists at "), std::string::npos) << blocked.err;
  const auto emptied = runHostBinary(h, {"trash", "empty", "--yes"}, kLinux);
  EXPECT_NE(emptied.out.find(" (2 of 2 items).\n"), std::string::npos) << emptied.out;
  EXPECT_TRUE(fs::is_empty(h.path(".local/share/Trash/files")));
  EXPECT_TRUE(fs::is_empty(h.path(".local/share/Trash/info")));
}

TEST(FrontDoorBinary, TheReadmesJqLinesWork) {
  ScratchHome h;
  junk(h);
  const fs::path json = h.outside("out") / "scan.json";
  h.text("../outside/out/scan.json", runHostBinary(h, {"--json", "scan", "--all"}, kLinux).out);
  const struct Case {
    std::string line;
    std::string expected;  // a line the output must hold
  } cases[] = {
      {"jq -r '.items | sort_by(-.size) | .[:5][] | \"\\(.size)\\t\\(.path)\"'", h.path(".cache/app").string()},
      {"jq -r '.categories[] | select(.count > 0) | \"\\(.id)\\t\\(.size)\"'", "userCaches\t"},
      {"jq -r --arg cutoff \"$(date -u -d '90 days ago' +%FT%TZ)\" "
       "'.items[] | select(.lastUsed != null and .lastUsed < $cutoff) | .path'",
       h.path(".local/share/Trash/files/draft.txt").string()},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.line);
    const auto r = Shell::run("/bin/bash", {"-c", c.line + " " + Text::shellQuote(json.string())}, 60);
    EXPECT_TRUE(r.ok()) << r.stderr;
    EXPECT_NE(r.stdout.find(c.expected), std::string::npos) << r.stdout;
  }
}

}  // namespace
}  // namespace kestrel::test
