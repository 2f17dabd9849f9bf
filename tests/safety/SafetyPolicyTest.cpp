// Safety policy: every list kind and every step of the decision, normalisation and link resolution.
#include "core/safety/SafetyPolicy.h"

#include "tests/support/ScratchHome.h"

#include <gtest/gtest.h>

#include <fstream>
#include <set>

namespace kestrel {
namespace {

using test::ScratchHome;

// Writable paths are named by the test: the process runs as root, which may write anything.
Services writableOnly(std::set<std::string> writable) {
  Services s;
  s.isWritable = [writable](const std::string& p) { return writable.count(p) > 0; };
  return s;
}

TEST(SafetyPolicy, DecidesEveryKindOfPath) {
  ScratchHome h;
  const std::string home = h.home().string();
  h.folder("Projects/keep");
  h.folder("Projects/other");
  h.folder("Library/Caches/app");
  h.file("Documents/report.pdf", 10);
  const fs::path volume = h.outside("OtherVolume");
  h.link("External", volume);                               // a home-folder link to another volume
  h.link("Library/Caches/escape", h.outside("elsewhere"));  // a parent link leaving home
  h.link("Shortcut", h.path("Documents"));                  // a link to a top-level folder
  h.link("Mine", h.outside("mine"));                        // the user's own folder elsewhere
  h.link("ToKeys", h.path(".ssh"));
  h.folder(".ssh");
  h.link("ToSystem", "/usr/share");
  h.link("ToHome", h.home());
  h.link("Kept", h.path("Projects/keep"));
  h.link("Dangling", h.path("nowhere"));
  // Links and folders of someone else are never followed (only root can make them here).
  const bool othersOwn = test::disown(volume) && test::disown(h.outside("elsewhere")) &&
                         test::disown(h.link("Foreign", h.outside("mine")));
  const fs::path sysLink = h.root() / "outside" / "sys";
  fs::create_symlink("/usr/share", sysLink);
  const std::string outside = (h.root() / "outside").string();

  const SafetyPolicy policy(h.paths(), {"~/Projects/keep/"},
                            writableOnly({"/Applications", "/Applications/Mine.app"}));
  const std::string rule = "Protected by your rules (" + home + "/Projects/keep)";
  const struct Case {
    std::string path;
    Verdict expected;
  } cases[] = {
      // 2: relative paths
      {"Documents/report.pdf", Verdict::blocked("Not an absolute path")},
      {"./x", Verdict::blocked("Not an absolute path")},
      // 3: top-level folders, in any spelling; their contents are not
      {"~", Verdict::blocked("Top-level folder")},
      {"~/Documents/", Verdict::blocked("Top-level folder")},
      {home + "//Documents", Verdict::blocked("Top-level folder")},
      {"/", Verdict::blocked("Top-level folder")},
      {"~/Library", Verdict::blocked("Top-level folder")},  // before its protected contents
      {"~/Library/Mobile Documents", Verdict::blocked("Top-level folder")},
      {"/Applications", Verdict::blocked("Top-level folder")},
      {"/tmp", Verdict::blocked("Top-level folder")},
      {"~/Documents/report.pdf", Verdict::allowed()},
      {"~/./Library/Caches/../Caches/app/", Verdict::allowed()},
      // 4: the user's rules protect the folder, what is inside and its parents
      {"~/Projects/keep", Verdict::blocked(rule)},
      {"~/Projects", Verdict::blocked(rule)},
      {"~/Projects/other", Verdict::allowed()},
      {"~/Projects/keeper", Verdict::allowed()},
      // 5: personal data
      {"~/Library/Mail/V10", Verdict::blocked("Protected personal data")},
      {"~/.ssh/id_ed25519", Verdict::blocked("Protected personal data")},
      {"~/.sshx", Verdict::allowed()},
      {"~/Library/Application Support/orvo Kestrel/config.json", Verdict::blocked("Protected personal data")},
      {"~/Library/LaunchAgents/com.orvo.kestrel.agent.plist", Verdict::blocked("Protected personal data")},
      {"~/Library/LaunchAgents/other.plist", Verdict::allowed()},
      // 6: photo libraries anywhere
      {"~/Pictures/Photos Library.photoslibrary/originals/a.jpg", Verdict::blocked("Photos library")},
      {"/Library/Caches/x.photoslibrary", Verdict::blocked("Photos library")},
      // 7: links: a link itself is removed as a link; a folder reached through one only when the
      // link and its folder are the user's and lead nowhere protected
      {"~/External", Verdict::allowed()},
      {"~/Library/Caches/escape", Verdict::allowed()},
      {"~/Mine/big.mov", Verdict::allowed()},
      {"~/Shortcut/report.pdf", Verdict::blocked("Symlinked folder leads to a protected location (Top-level folder)")},
      {"~/ToKeys/id_rsa", Verdict::blocked("Symlinked folder leads to a protected location (Protected personal data)")},
      {"~/ToSystem/doc", Verdict::blocked("Symlinked folder leads to a protected location (System location)")},
      {"~/Kept/x", Verdict::blocked("Symlinked folder leads to a protected location (" + rule + ")")},
      {"~/Dangling/x", Verdict::blocked("Symlinked folder leads outside your home folder")},
      // 8: cloud folders
      {"~/Library/Mobile Documents/com~apple~CloudDocs/a.txt", Verdict::syncedCloud("iCloud Drive")},
      {"~/Library/CloudStorage/GoogleDrive-me@example.com/a.txt", Verdict::syncedCloud("GoogleDrive")},
      {"~/Library/CloudStorageX/a.txt", Verdict::allowed()},
      // 9: system locations, by text or by the resolved parent
      {"/usr/local/bin/tool", Verdict::blocked("System location")},
      {"/Library/Caches/../../etc/hosts", Verdict::blocked("System location")},
      {"/Library/Keychains/System.keychain", Verdict::blocked("System location")},
      {(sysLink / "doc").string(), Verdict::blocked("System location")},
      // 10: allowed locations outside home (the roots themselves are refused)
      {"/Library/Caches", Verdict::blocked("Outside allowed locations")},
      {outside + "/OtherVolume/f", Verdict::blocked("Outside allowed locations")},
      {"/Library/CachesX/y", Verdict::blocked("Outside allowed locations")},
      // 11: admin unless an application the user owns
      {"/Library/Caches/com.vendor.app", Verdict::needsAdmin()},
      {"/Applications/Mine.app", Verdict::allowed()},
      {"/Applications/RootOwned.app", Verdict::needsAdmin()},
  };
  std::vector<Case> all(std::begin(cases), std::end(cases));
  if (othersOwn) {
    all.push_back({"~/External/big.mov", Verdict::blocked("Symlinked folder leads outside your home folder")});
    all.push_back({"~/Library/Caches/escape/data", Verdict::blocked("Symlinked folder leads outside your home folder")});
    all.push_back({"~/Foreign/x", Verdict::blocked("Symlinked folder leads outside your home folder")});
  }
  for (const auto& c : all) {
    SCOPED_TRACE(c.path);
    const Verdict v = policy.check(c.path);
    EXPECT_EQ(v.kind, c.expected.kind);
    EXPECT_EQ(v.text, c.expected.text);
  }
  // The batch form shares resolved parents between paths but decides exactly the same.
  std::vector<std::string> paths;
  for (const auto& c : all) paths.push_back(c.path);
  const auto batch = policy.checkAll(paths);
  ASSERT_EQ(batch.size(), paths.size());
  for (size_t i = 0; i < paths.size(); ++i) EXPECT_EQ(batch[i].text, all[i].expected.text) << paths[i];
}

TEST(SafetyPolicy, FollowsALinkedRootOnlyWhereItMayAndActsAtItsRealPlace) {
  ScratchHome h;
  const fs::path big = h.outside("big disk/cache");
  h.link(".cache", big);
  h.folder("Library/Caches");
  h.link("Library/Caches/app", h.outside("appcache"));
  const SafetyPolicy policy(h.paths(), {}, writableOnly({}));
  const std::string home = h.home().string();
  EXPECT_EQ(policy.followRoot(home + "/.cache").real, big.string());
  EXPECT_EQ(policy.followRoot(home + "/.cache/sub/new").real, big.string() + "/sub/new");  // not made yet
  EXPECT_EQ(policy.placeOf(home + "/.cache/pip"), big.string() + "/pip");
  EXPECT_EQ(policy.placeOf(home + "/.cache"), home + "/.cache");  // the link itself, never resolved
  EXPECT_EQ(policy.placeOf(home + "/Library/Caches/app/x"), h.outside("appcache").string() + "/x");
  EXPECT_EQ(policy.followRoot("/usr/share").real, "/usr/share");  // outside home: as written
  // The user's rules count on the real place: protecting the disk folder refuses the link.
  const SafetyPolicy strict(h.paths(), {big.string()}, writableOnly({}));
  EXPECT_FALSE(strict.followRoot(home + "/.cache/pip").real);
  EXPECT_EQ(strict.check(home + "/.cache/pip").text,
            "Symlinked folder leads to a protected location (Protected by your rules (" + big.string() + "))");
  EXPECT_FALSE(strict.placeOf(home + "/.cache/pip"));
}

TEST(SafetyPolicy, UserRulesThatAreEmptyOrRelative) {
  ScratchHome h;
  h.folder("Projects/keep");
  const std::string home = h.home().string();
  const struct Case {
    std::vector<std::string> rules;
    std::string path;
    bool blocked;
  } cases[] = {
      {{""}, home + "/Library/Caches/app", true},  // an empty entry protects everything
      {{"Projects/keep"}, home + "/Projects/keep/a", true},
      {{"Projects/keep"}, home + "/Projects", true},  // the folder holding it too
      {{"Projects/keep"}, "/Library/Caches/Projects/keep", true},  // wherever it stands, by text
      {{"Projects/keep"}, home + "/Projects/keeper", false},
      {{"./Projects/../Projects/keep/"}, home + "/Projects/keep", true},
      {{"~/Projects/keep"}, home + "/Projects/other", false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.path);
    const SafetyPolicy policy(h.paths(), c.rules, writableOnly({}));
    EXPECT_EQ(policy.check(c.path).isBlocked(), c.blocked);
  }
  const SafetyPolicy relative(h.paths(), {"Projects/keep", "~/x", ""}, writableOnly({}));
  EXPECT_EQ(relative.relativeProtected(), std::vector<std::string>{"Projects/keep"});
}

TEST(SafetyPolicy, TheCrashFolderGivesUpOnlyTheUsersOwnReports) {
  ScratchHome h;
  const fs::path crash = h.root() / "system/var/crash";
  fs::create_directories(crash / "sub");
  fs::create_directories(crash / "folder.crash");
  for (const char* name : {"mine.crash", "notes.txt", ".hidden.crash", "sub/deep.crash", "theirs.crash"})
    std::ofstream(crash / name) << "report";
  fs::create_symlink(crash / "mine.crash", crash / "link.crash");
  fs::create_symlink(crash, h.root() / "to-crash");
  const bool othersOwn = test::disown(crash / "theirs.crash");
  const SafetyPolicy onLinux(h.linuxPaths(), {}, writableOnly({}));
  const Verdict outside = Verdict::blocked("Outside allowed locations");
  struct Case {
    fs::path path;
    Verdict expected;
  } cases[] = {
      {crash / "mine.crash", Verdict::allowed()},
      {crash / "notes.txt", outside},
      {crash / ".hidden.crash", outside},
      {crash / "sub/deep.crash", outside},
      {crash / "folder.crash", outside},
      {crash / "link.crash", outside},
      {crash / "gone.crash", outside},
      {h.root() / "to-crash/mine.crash", outside},  // only reached without a link
  };
  for (const auto& c : cases) EXPECT_EQ(onLinux.check(c.path.string()), c.expected) << c.path;
  if (othersOwn) {
    EXPECT_EQ(onLinux.check((crash / "theirs.crash").string()), outside);
  }
  // The macOS table has no such folder.
  EXPECT_EQ(SafetyPolicy(h.paths(), {}, writableOnly({})).check((crash / "mine.crash").string()), outside);
  // The user's own rules still come first.
  EXPECT_TRUE(SafetyPolicy(h.linuxPaths(), {crash.string()}, writableOnly({})).check((crash / "mine.crash").string())
                  .isBlocked());
}

TEST(SafetyPolicy, HomeReachedThroughALinkStaysHome) {
  ScratchHome h;
  h.folder("Library/Caches/app");
  const fs::path linkedHome = h.root() / "linked home";
  fs::create_symlink(h.home(), linkedHome);
  const SafetyPolicy policy(Paths(linkedHome), {(linkedHome / "Library/Caches/app/keep").string()},
                            writableOnly({}));
  // Both spellings of a place at home are the same place.
  for (const fs::path& home : {linkedHome, h.home()}) {
    SCOPED_TRACE(home);
    EXPECT_TRUE(policy.check((home / "Library/Caches/app").string()).isBlocked());  // holds "keep"
    EXPECT_EQ(policy.check((home / "Library/Caches/other").string()).text, "");
    EXPECT_TRUE(policy.check((home / "Library").string()).isBlocked());
    EXPECT_EQ(policy.placeOf((home / "Library/Caches/other").string()),
              (h.home() / "Library/Caches/other").string());
  }
}

TEST(SafetyPolicy, NormalizesLikeThePlatform) {
  ScratchHome h;
  const std::string home = h.home().string();
  const fs::path deep = h.outside("deep/inner");
  h.link("L", deep);
  const struct Case {
    std::string in;
    bool stripPrivate;
    std::string out;
  } cases[] = {
      {"~", false, home},
      {"~/Documents/", false, home + "/Documents"},
      {"/a//b///", false, "/a/b"},
      {"/nonexistent-kestrel/x/../y", false, "/nonexistent-kestrel/y"},
      {"/..", false, "/"},
      {"a/./b", false, "a/b"},
      // ".." after a link means the link target's parent, as the file system sees it
      {home + "/L/..", false, (h.root() / "outside/deep").string()},
      // the /private rule only where the platform has it, and only for paths that exist without it
      {"/private/tmp", false, "/private/tmp"},
      {"/private/tmp", true, "/tmp"},
      {"/private/nonexistent-kestrel", true, "/private/nonexistent-kestrel"},
      {"/private", true, "/private"},
  };
  for (const auto& c : cases) EXPECT_EQ(SafetyPolicy::normalize(c.in, h.home(), c.stripPrivate), c.out) << c.in;
}

TEST(SafetyPolicy, ResolvesLinksComponentByComponent) {
  ScratchHome h;
  const std::string root = h.root().string();
  h.folder("real/sub");
  h.link("rel", "real");                 // relative target
  h.link("chain", h.path("rel/sub"));    // through another link
  h.link("up", "../home/real");          // with ".." in the target
  h.link("loopA", h.path("loopB"));
  h.link("loopB", h.path("loopA"));
  const std::string home = h.home().string();
  const struct Case {
    std::string in, out;
  } cases[] = {
      {home + "/rel/sub/x", home + "/real/sub/x"},
      {home + "/chain/missing/y", home + "/real/sub/missing/y"},
      {home + "/up/sub", home + "/real/sub"},
      {home + "/missing/rel", home + "/missing/rel"},  // nothing below a missing component is resolved
      {"relative/path", "relative/path"},
  };
  for (const auto& c : cases) EXPECT_EQ(SafetyPolicy::resolveLinks(c.in), c.out) << c.in;
  // A loop ends instead of spinning.
  EXPECT_FALSE(SafetyPolicy::resolveLinks(home + "/loopA/x").empty());
}

TEST(SafetyPolicy, UserWritableTestsTheParentFirst) {
  ScratchHome h;
  std::vector<std::string> asked;
  Services probes;
  probes.isWritable = [&](const std::string& p) {
    asked.push_back(p);
    return p != "/Applications/Locked";
  };
  const SafetyPolicy policy(h.paths(), {}, probes);
  EXPECT_TRUE(policy.isUserWritable("/Applications/Mine.app"));
  EXPECT_EQ(asked, (std::vector<std::string>{"/Applications", "/Applications/Mine.app"}));
  asked.clear();
  EXPECT_FALSE(policy.isUserWritable("/Applications/Locked/Inner.app"));
  EXPECT_EQ(asked, (std::vector<std::string>{"/Applications/Locked"}));
}

TEST(SafetyPolicy, OnlyAllowedAndAdminVerdictsAreSafeForAutomation) {
  EXPECT_TRUE(Verdict::allowed().safeForAutomation() && Verdict::needsAdmin().safeForAutomation());
  EXPECT_FALSE(Verdict::blocked("x").safeForAutomation() || Verdict::syncedCloud("iCloud Drive").safeForAutomation());
}

TEST(SafetyPolicy, ContainmentIsByWholeComponents) {
  const struct Case {
    const char* a;
    const char* b;
    bool atOrUnder, overlap;
  } cases[] = {
      {"/a/b", "/a", true, true},   {"/a", "/a/b", false, true}, {"/ab", "/a", false, false},
      {"/a", "/a", true, true},     {"/a/b", "/a/", true, true}, {"/x", "/", true, true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.a) + " vs " + c.b);
    EXPECT_EQ(isAtOrUnder(c.a, c.b), c.atOrUnder);
    EXPECT_EQ(overlaps(c.a, c.b), c.overlap);
  }
}

}  // namespace
}  // namespace kestrel
