// End to end: stores that are not files, too few descriptors and bind mounts never make a command
// hang, offer what may be in use, or remove anything outside the folder it was given.
#include "tests/e2e/RunAgent.h"
#include "tests/support/ScratchVolume.h"

#include "core/system/process/Shell.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <functional>

namespace kestrel::test {
namespace {

namespace fs = std::filesystem;

const std::string kSupport = "Library/Application Support/orvo Kestrel/";

TEST(HostileFilesBinary, AStoreReplacedByAFifoNeverHangsItsCommand) {
  struct Case {
    std::string store;
    std::vector<std::string> args;
    std::string out;  // what the command says, as with a damaged file
    int status = 0;
  };
  const std::string session = "Quarantine/20260301-093000-ABCDEF/";
  const Case cases[] = {
      {"rules.json", {"rules"}, "rules.json is damaged (not a regular file); no rule runs.", 1},
      {"shredder.json", {"shred-now"}, "Nothing to shred.\n"},
      {"shredder-review.json", {"shred-now"}, "Nothing to shred.\n"},
      {"agent-state.json", {"run-scheduled"}, ""},
      {"Quarantine/20260301-093000-ABCDEF/journal.jsonl", {"quarantine", "list"}, ""},
      {"space-history.json", {"forecast"}, "Not enough history yet (needs ~2 days of samples).\n"},
      {"growth-snapshots.json", {"growth"}, "Need two snapshots; run again tomorrow.\n"},
      {"audit.jsonl",
       {"clean", "--category", "userCaches"},
       "Freed 201 KB\n"},  // the record is lost, not the run
      {"Quarantine/20260301-093000-ABCDEF/manifest.json", {"quarantine", "list"}, ""},
      {"Quarantine/20260301-093000-ABCDEF/manifest.json",
       {"quarantine", "restore", "20260301-093000-ABCDEF"},
       "No readable quarantine session 20260301-093000-ABCDEF",
       1},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.store + " " + c.args.front());
    ScratchHome h;
    h.oldFolder("Library/Caches/com.app");
    h.folder(kSupport + session + "items");
    ASSERT_EQ(::mkfifo(h.path(kSupport + c.store).c_str(), 0600), 0);
    const auto started = std::chrono::steady_clock::now();
    const auto run = runAgentAt(h.home().string(), c.args, 20);
    EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(5));
    EXPECT_EQ(run.status, c.status);
    EXPECT_NE(run.out.find(c.out), std::string::npos) << run.out;
  }
}

TEST(HostileFilesBinary, ALogFolderItCannotFullySeeIsNotOffered) {
  // 1,500 old log folders and one log written a moment ago, under a descriptor limit usual for
  // background agents: a walk that cannot open a folder must not take it for "nothing recent".
  ScratchHome h;
  for (int i = 0; i < 1500; ++i) {
    const std::string dir = "Library/Logs/app/d" + std::to_string(i);
    h.file(dir + "/old.log", 100);
    h.age(dir + "/old.log", 10);
    h.age(dir, 10);
  }
  h.file("Library/Logs/app/d1234/live.log", 1000);
  h.age("Library/Logs/app/d1234", 10);
  h.age("Library/Logs/app", 10);
  const auto run = runAgentAt(h.home().string(), {"clean", "--category", "logs"}, 60, "ulimit -n 256 && exec \"$@\"");
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.out, "Nothing to clean\n");
  EXPECT_TRUE(fs::exists(h.path("Library/Logs/app/d1234/live.log")));
  EXPECT_TRUE(fs::exists(h.path("Library/Logs/app/d0/old.log")));
}

// Runs the agent in a private mount namespace with `from` bind-mounted on `to`, so the mount
// exists for this one run only. Status 77 when no such namespace can be made here.
Shell::Result withBindMount(const ScratchHome& h, const fs::path& from, const fs::path& to,
                            const std::vector<std::string>& args) {
  std::vector<std::string> argv = {"--mount", "--propagation", "private", "/bin/sh", "-c",
                                   "mount --bind \"$1\" \"$2\" || exit 77; shift 2; exec \"$@\"", "sh",
                                   from.string(), to.string(), "/usr/bin/env", "HOME=" + h.home().string(),
                                   KESTREL_AGENT_BINARY};
  argv.insert(argv.end(), args.begin(), args.end());
  auto r = Shell::run("unshare", argv, 60);
  if (r.stderr.find("unshare failed") != std::string::npos || r.status == 127) r.status = 77;
  return r;
}

TEST(HostileFilesBinary, AnItemHoldingAMountIsNeitherRemovedAcrossItNorMoved) {
  const fs::path folder = "Library/Caches/com.app";
  for (const std::string disposal : {"delete", "quarantine", "trash"}) {
    SCOPED_TRACE(disposal);
    ScratchHome h;
    h.text("Library/Application Support/orvo Kestrel/config.json",
           "{\"disposalOverrides\": {\"userCaches\": \"" + disposal + "\"}}");
    h.oldFolder(folder.string());
    h.folder((folder / "mnt").string());
    h.age(folder.string(), 10);
    const fs::path target = h.outside("precious");
    for (int i = 0; i < 5; ++i) h.file("../outside/precious/file" + std::to_string(i), 100000);
    const auto r = withBindMount(h, target, h.path((folder / "mnt").string()), {"clean", "--category", "userCaches"});
    if (r.status == 77) GTEST_SKIP() << "cannot make a private mount namespace here: " << r.stderr;
    ASSERT_EQ(r.status, 0) << r.stderr;
    const std::string failed = "  failed: " + h.path(folder.string()).string() + ": ";
    EXPECT_NE(r.stdout.find(failed), std::string::npos) << r.stdout;
    if (disposal != "delete") {
      EXPECT_NE(r.stdout.find(failed + "contains another file system: " + h.path((folder / "mnt").string()).string()),
                std::string::npos)
          << r.stdout;
    }
    for (int i = 0; i < 5; ++i) EXPECT_EQ(fs::file_size(target / ("file" + std::to_string(i))), 100000u) << i;
    EXPECT_TRUE(fs::exists(h.path((folder / "mnt").string())));
    EXPECT_FALSE(fs::exists(h.paths().quarantineDir()) && !fs::is_empty(h.paths().quarantineDir()) &&
                 runAgentBinary(h, {"quarantine", "list"}).out != "")
        << "nothing was moved, so no session was kept";
  }
}

TEST(HostileFilesBinary, APurgeThatStopsAtAMountKeepsTheManifest) {
  ScratchHome h;
  h.text("Library/Application Support/orvo Kestrel/config.json",
         "{\"disposalOverrides\": {\"userCaches\": \"quarantine\"}}");
  h.oldFolder("Library/Caches/com.app");
  h.folder("Library/Caches/com.app/mnt");
  h.age("Library/Caches/com.app", 10);
  ASSERT_EQ(runAgentBinary(h, {"clean", "--category", "userCaches"}).status, 0);
  const std::string list = runAgentBinary(h, {"quarantine", "list"}).out;
  const std::string id = list.substr(0, list.find('\t'));
  ASSERT_FALSE(id.empty());
  // A file system mounted inside the quarantined item after it went in.
  const fs::path inside = h.paths().quarantineSessionDir(id) / "items/0-com.app/mnt";
  ASSERT_TRUE(fs::is_directory(inside));
  const fs::path target = h.outside("precious");
  h.file("../outside/precious/file", 100000);
  const auto purge = withBindMount(h, target, inside, {"quarantine", "purge", id});
  if (purge.status == 77) GTEST_SKIP() << "cannot make a private mount namespace here: " << purge.stderr;
  EXPECT_EQ(purge.status, 1) << purge.stdout << purge.stderr;
  EXPECT_EQ(fs::file_size(target / "file"), 100000u);
  EXPECT_TRUE(fs::exists(h.paths().quarantineSessionDir(id) / "manifest.json"));
  EXPECT_EQ(runAgentBinary(h, {"quarantine", "list"}).out, list);
  // The mount gone, the purge finishes.
  EXPECT_EQ(runAgentBinary(h, {"quarantine", "purge", id}).out, "Purged.\n");
  EXPECT_FALSE(fs::exists(h.paths().quarantineSessionDir(id)));
}

// Another user of a shared volume plants names where the user's Trash folders would be: only the
// user's own real folders (and a shared ".Trash" that is a real sticky folder) ever count.
TEST(HostileFilesBinary, OnlyTheUsersOwnTrashFoldersOnAVolumeAreListed) {
  ScratchHome h;
  const fs::path volume = h.outside("usb");
  const ScratchVolume mounted(volume);
  if (!mounted.mounted()) GTEST_SKIP() << "needs root to mount a scratch volume and give folders to another user";
  const std::string uid = std::to_string(::getuid());
  const fs::path own = volume / (".Trash-" + uid), shared = volume / ".Trash";
  auto folder = [](const fs::path& p, mode_t mode = 0700) {
    fs::create_directories(p);
    ::chmod(p.c_str(), mode);
    return p;
  };
  h.file("Documents/files/report.docx", 5000);
  struct Case {
    const char* name;
    std::function<fs::path()> plant;  // makes the layout; returns the folder an item goes in
    bool listed;
  } cases[] = {
      {"own real folder", [&] { return folder(own / "files"); }, true},
      {"own folder is a link into the home", [&] {
         fs::create_symlink(h.path("Documents"), own);
         return h.path("Documents/files");
       }, false},
      {"files is a link", [&] {
         folder(own);
         fs::create_symlink(h.path("Documents/files"), own / "files");
         return h.path("Documents/files");
       }, false},
      {"own folder belongs to someone else", [&] {
         const fs::path files = folder(own / "files");
         disown(own);
         return files;
       }, false},
      {"files belongs to someone else", [&] {
         const fs::path files = folder(own / "files");
         disown(files);
         return files;
       }, false},
      {"shared sticky .Trash", [&] {
         folder(shared, 01777);
         return folder(shared / uid / "files");
       }, true},
      {"shared .Trash without the sticky bit", [&] {
         folder(shared, 0777);
         return folder(shared / uid / "files");
       }, false},
      {"shared .Trash is a link to a sticky folder", [&] {
         folder(volume / "elsewhere", 01777);
         fs::create_symlink(volume / "elsewhere", shared);
         return folder(volume / "elsewhere" / uid / "files");
       }, false},
      {"the user's folder in the shared .Trash belongs to someone else", [&] {
         folder(shared, 01777);
         const fs::path files = folder(shared / uid / "files");
         disown(shared / uid);
         return files;
       }, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    for (const auto& e : fs::directory_iterator(volume)) fs::remove_all(e.path());
    const fs::path files = c.plant();
    h.file("../outside/usb/planted.bin", 5000);
    const std::string item = c.listed ? "planted.bin" : "report.docx";
    if (c.listed) fs::rename(volume / "planted.bin", files / item);
    const auto scan = runAgentLinux(h, {"scan", "--json"}, {"KESTREL_VOLUMES_ROOT=" + volume.string()});
    ASSERT_EQ(scan.status, 0) << scan.err;
    // Whatever path the listing would reach it by.
    EXPECT_EQ(scan.out.find("\"title\" : \"" + item + "\"") != std::string::npos, c.listed) << scan.out;
  }
}

}  // namespace
}  // namespace kestrel::test
