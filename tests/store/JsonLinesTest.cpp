// JsonLines: what a tolerant read takes and skips, in both directions, and the limit of the
// newest-first read. Appends (torn tails, several processes, odd files) are covered by the audit
// log's tests, which write through it.
#include <gtest/gtest.h>

#include <fstream>

#include "core/store/JsonLines.h"
#include "tests/support/ScratchHome.h"

namespace kestrel {
namespace {

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
