// The "scan" command in process: the table's padding and order, the empty scan and the JSON form.
#include "core/base/ByteFormat.h"
#include "core/base/Json.h"
#include "core/system/fs/FS.h"
#include "tests/agent/RunInProcess.h"

#include <gtest/gtest.h>

namespace kestrel::test {
namespace {

TEST(ScanCommand, TablePadsNamesAndSizesAndAnEmptyHomeShowsOnlyTheTotal) {
  ScratchHome h;
  EXPECT_EQ(run(h, {"scan"}).out, "Total reclaimable: Zero KB\n");
  EXPECT_EQ(run(h, {"scan", "--json"}).out, "[\n\n]\n");

  for (const char* rel : {"Library/Caches/com.a/blob", "Library/Caches/com.b/blob"}) h.aged(rel, 70000, 5, kTestNow);
  h.aged(".Trash/old.txt", 5, 5, kTestNow);
  h.aged(".npm/_cacache/blob", 1048576, 5, kTestNow);
  h.aged("Downloads/ignored.dmg", 5000, 5, kTestNow);  // installers are not part of the default scan
  const auto size = [&](const char* rel) { return ByteFormat::string(FS::allocatedSize(h.path(rel))); };
  const auto pad = [](std::string s, size_t w) { return s + std::string(w - s.size(), ' '); };
  EXPECT_EQ(run(h, {"scan"}).out,
            pad("User Caches", 36) + pad(size("Library/Caches"), 12) + "(2 items)\n" + pad("Trash", 36) +
                pad(size(".Trash/old.txt"), 12) + "(1 items)\n" + pad("Package Manager Caches", 36) +
                pad(size(".npm/_cacache"), 12) + "(1 items)\n" + "Total reclaimable: " +
                ByteFormat::string(FS::allocatedSize(h.path("Library/Caches")) + FS::allocatedSize(h.path(".Trash")) +
                                   FS::allocatedSize(h.path(".npm"))) +
                "\n");

  const auto parsed = JsonText::parse(run(h, {"scan", "--json"}).out);
  ASSERT_TRUE(parsed && parsed->is_array());
  std::vector<std::string> categories;  // in result order, largest first inside each
  for (const auto& item : *parsed) {
    categories.push_back(item.at("category"));
    EXPECT_TRUE(item.at("lastUsed").is_number());
    EXPECT_EQ(item.at("id"), item.at("target").at("path").at("_0"));
  }
  EXPECT_EQ(categories, (std::vector<std::string>{"userCaches", "userCaches", "trash", "packageCaches"}));
}

}  // namespace
}  // namespace kestrel::test
