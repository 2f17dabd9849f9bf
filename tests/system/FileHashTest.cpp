// FileHash: files of one length read side by side are each read once, hashed as when read alone,
// and grouped by equal bytes; a file that is no longer the one listed is left out.
#include "core/system/fs/FileHash.h"

#include "tests/support/ScratchHome.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "core/base/UniqueFd.h"

namespace kestrel {
namespace {

using test::ScratchHome;

constexpr size_t kLength = 300 * 1024;  // three blocks of the side-by-side reader

std::string contentWith(size_t at, char c) {
  std::string s(kLength, 'a');
  for (size_t i = 0; i < kLength; ++i) s[i] = static_cast<char>('a' + (i * 7) % 26);
  if (at < kLength) s[at] = c;
  return s;
}

TEST(FileHash, AGroupIsReadOnceAndSplitByEqualBytes) {
  const struct Case {
    const char* what;
    std::vector<size_t> differAt;     // per member: the byte changed (kLength: none)
    std::vector<size_t> wantSameAs;   // per member
  } cases[] = {
      {"two copies", {kLength, kLength}, {0, 0}},
      {"first byte differs", {kLength, 0}, {0, 1}},
      {"last byte differs", {kLength, kLength - 1}, {0, 1}},
      {"a block boundary differs", {kLength, 128 * 1024}, {0, 1}},
      {"two pairs and one alone", {7, kLength, 7, 200000, kLength}, {0, 1, 0, 3, 1}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    ScratchHome h;
    std::vector<std::string> names;
    std::vector<struct stat> listed;
    for (size_t i = 0; i < c.differAt.size(); ++i) {
      names.push_back("f" + std::to_string(i));
      const fs::path p = h.text(names.back(), contentWith(c.differAt[i], '!'));
      struct stat st;
      ASSERT_EQ(::lstat(p.c_str(), &st), 0);
      listed.push_back(st);
    }
    std::vector<const char*> raw;
    for (const auto& n : names) raw.push_back(n.c_str());
    const UniqueFd dir(::open(h.home().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    uint64_t read = 0;
    const auto got = FileHash::readGroup(dir.get(), raw, listed, &read);
    EXPECT_EQ(read, kLength * names.size());
    ASSERT_EQ(got.size(), names.size());
    for (size_t i = 0; i < names.size(); ++i) {
      EXPECT_EQ(got[i].sameAs, c.wantSameAs[i]) << names[i];
      uint64_t alone = 0;
      EXPECT_EQ(got[i].hash, FileHash::ofFileAt(dir.get(), raw[i], &listed[i], &alone)) << names[i];
      EXPECT_TRUE(FileHash::unchanged(listed[i], got[i].seen));
    }
  }
}

TEST(FileHash, AMemberThatIsNoLongerTheFileListedIsLeftOut) {
  ScratchHome h;
  const std::string same = contentWith(kLength, 'x');
  h.text("a", same);
  h.text("b", same);
  h.text("target", same);
  std::vector<struct stat> listed(3);
  ASSERT_EQ(::lstat((h.home() / "a").c_str(), &listed[0]), 0);
  ASSERT_EQ(::lstat((h.home() / "b").c_str(), &listed[1]), 0);
  ASSERT_EQ(::lstat((h.home() / "target").c_str(), &listed[2]), 0);
  // "b" is replaced by another file after it was listed; "c" is a link where a file was listed.
  h.text("b-new", same);
  fs::rename(h.home() / "b-new", h.home() / "b");
  fs::create_symlink(h.home() / "target", h.home() / "c");
  const std::vector<struct stat> expected = {listed[0], listed[1], listed[2]};
  const UniqueFd dir(::open(h.home().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  const auto got = FileHash::readGroup(dir.get(), {"a", "b", "c"}, expected, nullptr);
  EXPECT_TRUE(got[0].hash && got[0].sameAs == 0u);
  EXPECT_FALSE(got[1].hash || got[1].sameAs);
  EXPECT_FALSE(got[2].hash || got[2].sameAs);

  // A write changes what `unchanged` compares.
  struct stat before, after;
  ASSERT_EQ(::lstat((h.home() / "a").c_str(), &before), 0);
  h.text("a", "shorter");
  ASSERT_EQ(::lstat((h.home() / "a").c_str(), &after), 0);
  EXPECT_TRUE(FileHash::unchanged(before, before));
  EXPECT_FALSE(FileHash::unchanged(before, after));
}

}  // namespace
}  // namespace kestrel
