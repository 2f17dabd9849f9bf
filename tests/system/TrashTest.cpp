// The freedesktop Trash: the size line a trashed folder gets, what leaving the Trash takes with it,
// and the Trash of another volume.
#include "core/system/fs/Trash.h"

#include "core/safety/SafetyPolicy.h"
#include "tests/support/ScratchHome.h"
#include "tests/support/ScratchVolume.h"

#include <gtest/gtest.h>
#include <unistd.h>

namespace kestrel {
namespace {

using test::ScratchHome;

const Date kNow = Dates::fromUnixSeconds(1795000000);

fs::path trash(const Paths& paths, const fs::path& item) {
  return platform::moveToTrash(paths, SafeFS::openParent(Anchor::forPath(paths.home(), item), item), kNow);
}

TEST(Trash, FolderGetsASizeLineAndLeavingTakesInfoAndLine) {
  ScratchHome h;
  const Paths paths = h.linuxPaths();
  h.file("a b/one", 10000);
  h.file("plain.txt", 10);
  const fs::path folder = trash(paths, h.path("a b"));
  const fs::path file = trash(paths, h.path("plain.txt"));
  EXPECT_EQ(folder, h.path(".local/share/Trash/files/a b"));
  const fs::path sizes = h.path(".local/share/Trash/directorysizes");
  const std::string text = test::readText(sizes);
  ASSERT_EQ(std::count(text.begin(), text.end(), '\n'), 1) << "folders only: " << text;
  EXPECT_EQ(text.substr(text.find(' ', text.find(' ') + 1)), " a%20b\n") << text;
  EXPECT_GE(std::stoll(text), 10000);
  EXPECT_EQ(platform::trashDeletionDate(folder), kNow);

  platform::forgetTrashEntry(folder);  // still there: nothing changes
  EXPECT_TRUE(fs::exists(platform::trashInfoFile(folder)));
  fs::remove_all(folder);
  fs::remove(file);
  platform::forgetTrashEntry(folder);
  platform::forgetTrashEntry(file);
  EXPECT_FALSE(fs::exists(platform::trashInfoFile(folder)));
  EXPECT_FALSE(fs::exists(platform::trashInfoFile(file)));
  EXPECT_EQ(test::readText(sizes), "");
}

// Percent-decoded.
std::string decoded(const std::string& s) {
  std::string out;
  for (size_t i = 0; i < s.size(); ++i) {
    if (s[i] != '%') out += s[i];
    else out += static_cast<char>(std::stoi(s.substr(i + 1, 2), nullptr, 16)), i += 2;
  }
  return out;
}

TEST(Trash, SameNamesNeverOverwriteAndTheOriginalPathIsEscaped) {
  ScratchHome h;
  const Paths paths = h.linuxPaths();
  const fs::path files = h.path(".local/share/Trash/files");
  h.text(".local/share/Trash/files/stray.log", "already in the Trash");  // without an info file
  const struct Case {
    std::string rel, trashName;
  } cases[] = {
      {"one/100% é #1.txt", "100% é #1.txt"}, {"two/100% é #1.txt", "100% é #1.2.txt"}, {"stray.log", "stray.2.log"}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.rel);
    const fs::path item = h.text("Library/Caches/" + c.rel, c.rel);
    EXPECT_EQ(trash(paths, item), files / c.trashName);
    EXPECT_EQ(test::readText(files / c.trashName), c.rel);
    const std::string info = test::readText(platform::trashInfoFile(files / c.trashName));
    EXPECT_EQ(info.rfind("[Trash Info]\nPath=", 0), 0u) << info;
    const std::string path = info.substr(18, info.find('\n', 18) - 18);
    EXPECT_EQ(path.find_first_of(" #é"), std::string::npos) << path;  // blanks, '%', '#' and bytes past ASCII
    EXPECT_EQ(decoded(path), item.string());
    EXPECT_NE(info.find("\nDeletionDate=" + Dates::local(kNow, "yyyy-MM-ddTHH:mm:ss") + "\n"), std::string::npos);
  }
  EXPECT_EQ(test::readText(files / "stray.log"), "already in the Trash");
  EXPECT_FALSE(fs::exists(platform::trashInfoFile(files / "stray.log")));
}

TEST(Trash, ItemOnAnotherVolumeGoesToThatVolumesTrash) {
  ScratchHome h;
  const fs::path volume = h.outside("usb");
  const test::ScratchVolume mounted(volume);
  if (!mounted.mounted()) GTEST_SKIP() << "needs root to mount a scratch volume";
  const Paths paths = h.linuxPaths().withVolumesRoot(volume);
  const std::string uid = std::to_string(::getuid());
  h.file("../outside/usb/first.bin", 100);
  EXPECT_EQ(trash(paths, volume / "first.bin"), volume / (".Trash-" + uid) / "files/first.bin");
  const std::string info = test::readText(volume / (".Trash-" + uid) / "info/first.bin.trashinfo");
  EXPECT_EQ(info.rfind("[Trash Info]\nPath=/", 0), 0u) << info;
  EXPECT_NE(info.find("/usb/first.bin\n"), std::string::npos) << info;
  EXPECT_FALSE(fs::exists(h.path(".local/share/Trash/files/first.bin"))) << "never copied across volumes";

  // A shared ".Trash" with the sticky bit takes precedence; one without it is never used.
  fs::create_directories(volume / ".Trash");
  ::chmod((volume / ".Trash").c_str(), 01777);
  h.file("../outside/usb/second.bin", 100);
  EXPECT_EQ(trash(paths, volume / "second.bin"), volume / ".Trash" / uid / "files/second.bin");
  ::chmod((volume / ".Trash").c_str(), 0777);
  h.file("../outside/usb/third.bin", 100);
  EXPECT_EQ(trash(paths, volume / "third.bin"), volume / (".Trash-" + uid) / "files/third.bin");

  // The user's Trash folders there are found again (the shared one only while it is sticky), and
  // what is in them may be removed; the rest of the volume may not.
  const auto found = platform::otherVolumeTrashes(paths);
  EXPECT_EQ(std::find(found.begin(), found.end(), volume / ".Trash" / uid / "files"), found.end());
  EXPECT_NE(std::find(found.begin(), found.end(), volume / (".Trash-" + uid) / "files"), found.end());
  const SafetyPolicy policy(paths, {});
  EXPECT_FALSE(policy.check((volume / (".Trash-" + uid) / "files/first.bin").string()).isBlocked());
  EXPECT_TRUE(policy.check((volume / "other.bin").string()).isBlocked());
  EXPECT_TRUE(policy.check((volume / ".Trash" / uid / "files/second.bin").string()).isBlocked());
}

}  // namespace
}  // namespace kestrel
