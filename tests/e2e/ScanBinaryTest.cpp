// End to end: "scan" and "scan --json" on a synthetic home, checked against the file system.
#include "core/safety/SafetyPolicy.h"
#include "core/scan/scanners/Scanners.h"
#include "core/base/ByteFormat.h"
#include "core/base/Json.h"
#include "core/system/Shell.h"

#include "tests/e2e/RunAgent.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <map>
#include <regex>
#include <set>

namespace kestrel::test {
namespace {

// The synthetic-home tool in the shared folder beside the checkout.
const std::string kMakeHome = KESTREL_SOURCE_DIR "/../shared/tools/make-home";

void makeHome(const ScratchHome& h) {
  const auto r = Shell::run(kMakeHome,
                            {"--root", h.home().string(), "--scale", "0.05", "--big", "0.01", "--small-bytes", "0.1",
                             "--quiet"},
                            120);
  ASSERT_EQ(r.status, 0) << r.stderr;
}

// Regular files below a folder, counted by their blocks; links never followed.
int64_t regularBytes(const fs::path& p) {
  struct stat st;
  if (::lstat(p.c_str(), &st) != 0) return 0;
  if (S_ISREG(st.st_mode)) return static_cast<int64_t>(st.st_blocks) * 512;
  if (!S_ISDIR(st.st_mode)) return 0;
  int64_t sum = 0;
  std::error_code ec;
  for (auto it = fs::recursive_directory_iterator(p, ec); !ec && it != fs::recursive_directory_iterator();
       it.increment(ec))
    if (::lstat(it->path().c_str(), &st) == 0 && S_ISREG(st.st_mode)) sum += static_cast<int64_t>(st.st_blocks) * 512;
  return sum;
}

double secondsSinceModified(const fs::path& p) {
  struct stat st;
  EXPECT_EQ(::lstat(p.c_str(), &st), 0) << p;
  return static_cast<double>(::time(nullptr) - st.st_mtim.tv_sec);
}

TEST(ScanBinary, SyntheticHomeTableJsonAndFiltersAgree) {
  if (!fs::exists(kMakeHome)) GTEST_SKIP() << "the synthetic-home tool is not installed";
  ScratchHome h;
  ASSERT_NO_FATAL_FAILURE(makeHome(h));
  const auto table = runAgentBinary(h, {"scan"});
  ASSERT_EQ(table.status, 0) << table.err;
  const auto json1 = runAgentBinary(h, {"scan", "--json"});
  const auto json2 = runAgentBinary(h, {"scan", "--json"});
  ASSERT_EQ(json1.status, 0);
  // A scan never changes what it measures: the second scan sees exactly the same.
  EXPECT_EQ(json1.out, json2.out);
  ASSERT_FALSE(json1.out.empty());
  EXPECT_EQ(json1.out.back(), '\n');

  const auto parsed = JsonText::parse(json1.out);
  ASSERT_TRUE(parsed && parsed->is_array());
  ASSERT_GT(parsed->size(), 10u);
  std::map<std::string, std::pair<int64_t, int>> byCategory;  // raw value → size, count
  std::map<std::string, std::set<std::string>> listed;        // raw value → ids
  std::vector<std::string> order;
  std::set<std::string> paths;
  const SafetyPolicy policy(h.paths(), {});
  const std::string home = h.home().string();
  for (const auto& item : *parsed) {
    const std::string category = item.at("category");
    const std::string path = item.at("target").at("path").at("_0");
    if (order.empty() || order.back() != category) order.push_back(category);
    byCategory[category].first += item.at("size").get<int64_t>();
    byCategory[category].second += 1;
    listed[category].insert(item.at("id"));
    SCOPED_TRACE(path);
    EXPECT_FALSE(policy.check(path).isBlocked()) << policy.check(path).text;
    EXPECT_EQ(path.rfind(home + "/", 0), 0u);
    EXPECT_TRUE(paths.insert(path).second);
  }
  // Nothing listed lies inside another listed item.
  for (const auto& p : paths)
    for (fs::path parent = fs::path(p).parent_path(); parent.string().size() > home.size(); parent = parent.parent_path())
      EXPECT_EQ(paths.count(parent.string()), 0u) << p;

  // The table: one line per non-empty category in the JSON's order, then the total.
  std::string expected;
  int64_t total = 0;
  for (const auto& category : order) {
    const auto [size, count] = byCategory[category];
    std::string name(displayName(*categoryFromRaw(category)));
    std::string bytes = ByteFormat::string(size);
    expected += name + std::string(36 - name.size(), ' ') + bytes + std::string(12 - bytes.size(), ' ') + "(" +
                std::to_string(count) + " items)\n";
    total += size;
  }
  expected += "Total reclaimable: " + ByteFormat::string(total) + "\n";
  EXPECT_EQ(table.out, expected);

  // The filters, against an independent look at the home. User caches: every child that is not
  // excluded, at least an hour old and at least 64 KiB.
  std::set<std::string> caches;
  for (const auto& e : fs::directory_iterator(h.path("Library/Caches"))) {
    const std::string name = e.path().filename().string();
    if (std::find(kCacheExclusions.begin(), kCacheExclusions.end(), name) != kCacheExclusions.end()) continue;
    if (name == ".DS_Store" || name == ".localized") continue;
    if (secondsSinceModified(e.path()) < 3600) continue;
    if (regularBytes(e.path()) >= 65536) caches.insert(e.path().string());
  }
  EXPECT_EQ(listed["userCaches"], caches);
  EXPECT_FALSE(caches.empty());

  // Trash: every child, no filter.
  std::set<std::string> trash;
  for (const auto& e : fs::directory_iterator(h.path(".Trash")))
    if (e.path().filename() != ".DS_Store" && e.path().filename() != ".localized") trash.insert(e.path().string());
  EXPECT_EQ(listed["trash"], trash);

  // Package caches: at least 1 MiB and an hour old; never also listed as a user cache.
  for (const auto& id : listed["packageCaches"]) {
    EXPECT_GE(regularBytes(id), 1048576) << id;
    EXPECT_GE(secondsSinceModified(id), 3600) << id;
    EXPECT_EQ(listed["userCaches"].count(id), 0u);
  }
  // Logs never hold crash reports or the agent's own log folder; crash reports are not empty.
  for (const auto& id : listed["logs"]) {
    EXPECT_NE(fs::path(id).filename(), "DiagnosticReports");
    EXPECT_NE(fs::path(id).filename(), "orvo Kestrel");
  }
  for (const auto& id : listed["crashReports"]) EXPECT_GT(regularBytes(id), 0) << id;
}

TEST(ScanBinary, LinksOutOfHomeAndBrokenFoldersDoNotLeak) {
  ScratchHome h;
  const fs::path out = h.outside("secret");
  h.file("../outside/secret/Caches/big/blob", 200000);
  h.file("../outside/secret/Logs/old.log", 100);
  h.file("Library/Logs/DiagnosticReports", 10);  // a file where a folder belongs
  h.link("Library/Caches", out / "Caches");       // the cache folder itself leads out
  h.link(".Trash", out);                          // so does the Trash
  h.link(".npm", out);
  // Someone else's folder: a link to it is never followed (only root can set this up).
  if (!disown(out / "Caches") || !disown(out)) GTEST_SKIP() << "needs root to give a folder away";
  h.file("Library/Saved Application State/a.savedState/data", 100);
  h.age("Library/Saved Application State/a.savedState", 30);
  const auto run = runAgentBinary(h, {"scan", "--json"});
  ASSERT_EQ(run.status, 0) << run.err;
  const auto parsed = JsonText::parse(run.out);
  ASSERT_TRUE(parsed);
  ASSERT_EQ(parsed->size(), 1u) << run.out;
  EXPECT_EQ((*parsed)[0].at("id"), h.path("Library/Saved Application State/a.savedState").string());
}

}  // namespace
}  // namespace kestrel::test
