// JSONStore: atomic, durable replace; torn files never appear, even when the writer is killed.
#include "core/store/JSONStore.h"
#include "core/system/StoreFile.h"

#include "tests/support/ScratchHome.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
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

TEST(JSONStore, ReadTellsMissingFromDamaged) {
  ScratchHome h;
  h.text("bad.json", "{\"a\":");
  h.text("good.json", "{\"a\":\"\\/x\"}");
  h.link("link.json", h.path("good.json"));
  h.link("dangling.json", h.path("nowhere.json"));
  h.folder("folder.json");
  ASSERT_EQ(::mkfifo(h.path("fifo.json").c_str(), 0600), 0);
  h.file("big.json", 2048);
  using S = StoreFile::FileRead::Status;
  struct Case {
    const char* name;
    S status;
    size_t cap;
  } cases[] = {
      {"missing.json", S::missing, StoreFile::kMaxStoreBytes},
      {"good.json", S::ok, StoreFile::kMaxStoreBytes},
      {"link.json", S::ok, StoreFile::kMaxStoreBytes},  // read through the user's link
      {"dangling.json", S::damaged, StoreFile::kMaxStoreBytes},
      {"folder.json", S::damaged, StoreFile::kMaxStoreBytes},
      {"fifo.json", S::damaged, StoreFile::kMaxStoreBytes},  // answers at once, never blocks
      {"big.json", S::damaged, 1024},
      {"big.json", S::ok, 2048},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const auto r = StoreFile::read(h.path(c.name), c.cap);
    EXPECT_EQ(r.status, c.status);
    EXPECT_EQ(r.reason.empty(), c.status != S::damaged);
  }
  EXPECT_EQ(JSONStore::loadJson(h.path("link.json"))->at("a"), "/x");
  EXPECT_FALSE(JSONStore::loadJson(h.path("bad.json")));
  const auto decode = [](const Json& j) -> int {
    return static_cast<int>(JsonDecode::int64(j, "a"));  // throws: "a" is text
  };
  const auto notDecoded = JSONStore::loadChecked<int>(h.path("good.json"), decode);
  EXPECT_TRUE(notDecoded.damaged());
  EXPECT_FALSE(notDecoded.value);
  EXPECT_TRUE(JSONStore::loadChecked<int>(h.path("bad.json"), decode).damaged());
  EXPECT_FALSE(JSONStore::loadChecked<int>(h.path("missing.json"), decode).damaged());
}

TEST(JSONStore, SaveThroughALinkReplacesItsTargetAndKeepsTheLink) {
  ScratchHome h;
  const fs::path real = h.outside("dotfiles") / "config.json";
  JSONStore::save(Json{{"k", 1}}, real);
  h.link("support/step.json", "../../outside/dotfiles/config.json");
  h.link("support/config.json", h.path("support/step.json"));  // a chain of two links
  ASSERT_EQ(test::readText(real), "{\n  \"k\" : 1\n}");
  JSONStore::save(Json{{"k", 2}}, h.path("support/config.json"));
  EXPECT_TRUE(fs::is_symlink(h.path("support/config.json")));
  EXPECT_TRUE(fs::is_symlink(h.path("support/step.json")));
  EXPECT_EQ(test::readText(real), "{\n  \"k\" : 2\n}");
  EXPECT_EQ(JSONStore::loadJson(h.path("support/config.json"))->at("k"), 2);
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
