// End to end: "scan" and "scan --json" on a synthetic home: stable, safe and in agreement.
#include "core/safety/SafetyPolicy.h"
#include "core/base/ByteFormat.h"
#include "core/base/Json.h"
#include "core/system/process/Shell.h"

#include "tests/e2e/RunAgent.h"

#include <gtest/gtest.h>

#include <algorithm>
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

TEST(ScanBinary, SyntheticHomeTableAndJsonAgreeAndStaySafe) {
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
  int64_t total = 0;
  std::vector<std::string> order;  // the categories, in the JSON's order
  std::set<std::string> paths;
  const SafetyPolicy policy(h.paths(), {});
  const std::string home = h.home().string();
  for (const auto& item : *parsed) {
    const std::string category = item.at("category");
    const std::string path = item.at("target").at("path").at("_0");
    if (order.empty() || order.back() != category) order.push_back(category);
    total += item.at("size").get<int64_t>();
    SCOPED_TRACE(path);
    EXPECT_FALSE(policy.check(path).isBlocked()) << policy.check(path).text;
    EXPECT_EQ(path.rfind(home + "/", 0), 0u);
    EXPECT_TRUE(paths.insert(path).second);
  }
  // Nothing listed lies inside another listed item.
  for (const auto& p : paths)
    for (fs::path parent = fs::path(p).parent_path(); parent.string().size() > home.size(); parent = parent.parent_path())
      EXPECT_EQ(paths.count(parent.string()), 0u) << p;

  // The table's layout is checked in process; here it has a line per category and the JSON
  // form's total (each filter is checked at its boundary by the scanner tests).
  EXPECT_EQ(table.out.substr(table.out.rfind('\n', table.out.size() - 2) + 1),
            "Total reclaimable: " + ByteFormat::string(total) + "\n");
  EXPECT_EQ(std::count(table.out.begin(), table.out.end(), '\n'), static_cast<std::ptrdiff_t>(order.size() + 1));
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
