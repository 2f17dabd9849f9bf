// JSONStore: atomic, durable replace; torn files never appear, even when the writer is killed.
#include "core/storage/JSONStore.h"

#include "tests/support/ScratchHome.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <random>
#include <thread>

namespace kestrel {
namespace {

using test::ScratchHome;

TEST(JSONStore, SaveCreatesFolderAndLeavesNoTemporaryFiles) {
  ScratchHome h;
  const fs::path target = h.path("a/b/c/store.json");
  JSONStore::save(Json{{"k", "v/w"}}, target);
  JSONStore::save(Json{{"k", 2}}, target);
  EXPECT_EQ(test::readText(target), "{\n  \"k\" : 2\n}");
  const auto dir = fs::directory_iterator(target.parent_path());
  EXPECT_EQ(std::distance(fs::begin(dir), fs::end(dir)), 1);
}

TEST(JSONStore, SaveFailureKeepsOldFile) {
  ScratchHome h;
  const fs::path target = h.path("store.json");
  JSONStore::save(Json{{"k", 1}}, target);
  // A folder in the way of the rename: the save fails and the folder's content is untouched.
  const fs::path blocked = h.folder("dir.json");
  h.file("dir.json/inside", 1);
  EXPECT_THROW(JSONStore::save(Json{{"k", 2}}, blocked), std::system_error);
  EXPECT_TRUE(fs::exists(blocked / "inside"));
  EXPECT_THROW(JSONStore::save(Json{{"k", 2}}, h.path("store.json/x")), std::exception);
  EXPECT_EQ(test::readText(target), "{\n  \"k\" : 1\n}");
}

TEST(JSONStore, LoadYieldsNothingForBadFiles) {
  ScratchHome h;
  h.text("bad.json", "{\"a\":");
  h.text("good.json", "{\"a\":\"\\/x\"}");
  h.link("link.json", h.path("good.json"));
  EXPECT_FALSE(JSONStore::loadJson(h.path("missing.json")));
  EXPECT_FALSE(JSONStore::loadJson(h.path("bad.json")));
  EXPECT_FALSE(JSONStore::loadJson(h.path("link.json")));  // a final link is never followed
  ASSERT_TRUE(JSONStore::loadJson(h.path("good.json")));
  EXPECT_EQ(JSONStore::loadJson(h.path("good.json"))->at("a"), "/x");
  auto decoded = JSONStore::load<int>(h.path("good.json"), [](const Json& j) -> int {
    return static_cast<int>(JsonDecode::int64(j, "a"));  // throws: "a" is text
  });
  EXPECT_FALSE(decoded);
}

TEST(JSONStore, KilledWriterLeavesOldOrNewFile) {
  ScratchHome h;
  const fs::path target = h.path("state.json");
  const Json a{{"payload", std::string(300000, 'a')}};
  const Json b{{"payload", std::string(200000, 'b')}};
  const std::string textA = JsonText::pretty(a), textB = JsonText::pretty(b);
  JSONStore::save(a, target);
  std::mt19937 rng(42);
  for (int round = 0; round < 40; ++round) {
    const pid_t pid = ::fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
      for (int i = 0;; ++i) JSONStore::save(i % 2 ? a : b, target);
    }
    std::this_thread::sleep_for(std::chrono::microseconds(std::uniform_int_distribution<int>(0, 20000)(rng)));
    ::kill(pid, SIGKILL);
    ::waitpid(pid, nullptr, 0);
    const std::string now = test::readText(target);
    ASSERT_TRUE(now == textA || now == textB) << "torn file of " << now.size() << " bytes in round " << round;
  }
}

}  // namespace
}  // namespace kestrel
