// The "scan" command in-process: the table layout, the empty scan and the JSON form.
#include "agent/Dispatcher.h"
#include "core/base/ByteFormat.h"
#include "core/base/Json.h"

#include "tests/support/ScratchHome.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <sstream>

namespace kestrel::agent {
namespace {

using test::ScratchHome;

int64_t allocated(const fs::path& p) {
  struct stat st;
  EXPECT_EQ(::lstat(p.c_str(), &st), 0);
  return static_cast<int64_t>(st.st_blocks) * 512;
}

TEST(ScanCommand, TablePadsNamesAndSizesAndAnEmptyHomeShowsOnlyTheTotal) {
  ScratchHome h;
  std::ostringstream empty, emptyJson;
  EXPECT_EQ(runAgent({"scan"}, h.paths(), empty), 0);
  EXPECT_EQ(empty.str(), "Total reclaimable: Zero KB\n");
  EXPECT_EQ(runAgent({"scan", "--json"}, h.paths(), emptyJson), 0);
  EXPECT_EQ(emptyJson.str(), "[\n\n]\n");

  const Date now = std::chrono::system_clock::now();
  for (const char* rel : {"Library/Caches/com.a/blob", "Library/Caches/com.b/blob"}) h.file(rel, 70000);
  h.file(".Trash/old.txt", 5);
  h.file("Library/Logs/DiagnosticReports/x.ips", 5);
  h.file(".npm/_cacache/blob", 1048576);
  for (const char* rel : {"Library/Caches/com.a", "Library/Caches/com.b", ".Trash/old.txt",
                          "Library/Logs/DiagnosticReports/x.ips", ".npm/_cacache"})
    h.age(rel, 5, now);
  h.file("Downloads/ignored.dmg", 5000);  // installers are not part of the default scan
  h.age("Downloads/ignored.dmg", 5, now);
  const int64_t caches = allocated(h.path("Library/Caches/com.a/blob")) * 2;
  const int64_t trash = allocated(h.path(".Trash/old.txt"));
  const int64_t crash = allocated(h.path("Library/Logs/DiagnosticReports/x.ips"));
  const int64_t npm = allocated(h.path(".npm/_cacache/blob"));
  const auto pad = [](std::string s, size_t w) { return s + std::string(w - s.size(), ' '); };
  const std::string expected =
      pad("User Caches", 36) + pad(ByteFormat::string(caches), 12) + "(2 items)\n" +
      pad("Crash & Diagnostic Reports", 36) + pad(ByteFormat::string(crash), 12) + "(1 items)\n" +
      pad("Trash", 36) + pad(ByteFormat::string(trash), 12) + "(1 items)\n" +
      pad("Package Manager Caches", 36) + pad(ByteFormat::string(npm), 12) + "(1 items)\n" +
      "Total reclaimable: " + ByteFormat::string(caches + trash + crash + npm) + "\n";
  std::ostringstream out;
  EXPECT_EQ(runAgent({"scan"}, h.paths(), out), 0);
  EXPECT_EQ(out.str(), expected);

  std::ostringstream json;
  EXPECT_EQ(runAgent({"scan", "--json"}, h.paths(), json), 0);
  const std::string text = json.str();
  ASSERT_FALSE(text.empty());
  EXPECT_EQ(text.back(), '\n');
  const auto parsed = JsonText::parse(text);
  ASSERT_TRUE(parsed && parsed->is_array());
  ASSERT_EQ(parsed->size(), 5u);
  // Result order, items largest first inside each result.
  const std::vector<std::string> categories = {"userCaches", "userCaches", "crashReports", "trash", "packageCaches"};
  for (size_t i = 0; i < categories.size(); ++i) {
    SCOPED_TRACE(i);
    const Json& item = (*parsed)[i];
    EXPECT_EQ(item.at("category"), categories[i]);
    EXPECT_TRUE(item.at("lastUsed").is_number());
    EXPECT_EQ(item.at("id"), item.at("target").at("path").at("_0"));
  }
  EXPECT_NE(text.find("\"id\" : \"" + JsonText::compact(Json(h.path(".npm/_cacache").string())).substr(1)),
            std::string::npos);
}

}  // namespace
}  // namespace kestrel::agent
