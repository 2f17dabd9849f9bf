// Scan data model: the category table, enum texts and both JSON forms.
#include "core/model/ScanModel.h"

#include <gtest/gtest.h>

namespace kestrel {
namespace {

TEST(ScanModel, CategoryTableAttributes) {
  struct Case {
    CleanCategory c;
    const char* raw;
    const char* name;
    const char* image;
    CategoryGroup group;
    bool regenerable, selected;
    Disposal disposal;
  };
  const Case cases[] = {
      {CleanCategory::userCaches, "userCaches", "User Caches", "archivebox", CategoryGroup::system, true, true, Disposal::delete_},
      {CleanCategory::trash, "trash", "Trash", "trash", CategoryGroup::system, false, true, Disposal::delete_},
      {CleanCategory::mailDownloads, "mailDownloads", "Mail Attachments Cache", "envelope", CategoryGroup::system, true, true, Disposal::delete_},
      {CleanCategory::iosBackups, "iosBackups", "iPhone/iPad Backups", "iphone", CategoryGroup::personal, false, false, Disposal::quarantine},
      {CleanCategory::installers, "installers", "Leftover Installers (.dmg/.pkg)", "shippingbox", CategoryGroup::personal, false, false, Disposal::quarantine},
      {CleanCategory::largeOldFiles, "largeOldFiles", "Large & Forgotten Files", "externaldrive", CategoryGroup::personal, false, false, Disposal::quarantine},
      {CleanCategory::xcode, "xcode", "Xcode Build Data", "hammer", CategoryGroup::developer, true, true, Disposal::delete_},
      {CleanCategory::docker, "docker", "Docker", "server.rack", CategoryGroup::developer, true, true, Disposal::delete_},
      {CleanCategory::duplicates, "duplicates", "Duplicate Files", "doc.on.doc", CategoryGroup::clutter, false, false, Disposal::quarantine},
      {CleanCategory::cloudLocalCopies, "cloudLocalCopies", "Cloud Files Stored Locally", "icloud.and.arrow.up", CategoryGroup::cloud, false, false, Disposal::delete_},
      {CleanCategory::securityThreats, "securityThreats", "Suspicious Background Items", "shield.lefthalf.filled", CategoryGroup::security, false, false, Disposal::quarantine},
      {CleanCategory::appBundle, "appBundle", "Applications", "app", CategoryGroup::apps, false, false, Disposal::quarantine},
      {CleanCategory::orphanedLeftovers, "orphanedLeftovers", "Orphaned Files (deleted apps)", "questionmark.folder", CategoryGroup::apps, false, false, Disposal::quarantine},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.raw);
    EXPECT_EQ(rawValue(c.c), c.raw);
    EXPECT_EQ(displayName(c.c), c.name);
    EXPECT_EQ(systemImage(c.c), c.image);
    EXPECT_EQ(group(c.c), c.group);
    EXPECT_EQ(isRegenerable(c.c), c.regenerable);
    EXPECT_EQ(selectedByDefault(c.c), c.selected);
    EXPECT_EQ(defaultDisposal(c.c), c.disposal);
    EXPECT_EQ(categoryFromRaw(c.raw), c.c);
  }
  std::vector<int> selected;
  for (auto c : allCategories())
    if (selectedByDefault(c)) selected.push_back(position(c));
  EXPECT_EQ(selected, (std::vector<int>{0, 1, 2, 3, 4, 5, 11, 12, 13, 14, 15}));
  EXPECT_EQ(allCategories().size(), 23u);
  EXPECT_EQ(allCategories()[22], CleanCategory::orphanedLeftovers);
}

TEST(ScanModel, ParsingIsExact) {
  for (const char* bad : {"appBundles", "AppBundle", "user caches", ""}) EXPECT_FALSE(categoryFromRaw(bad)) << bad;
  EXPECT_EQ(disposalFromRaw("delete"), Disposal::delete_);
  EXPECT_FALSE(disposalFromRaw("shred"));
  EXPECT_EQ(groupFromRaw("System Junk"), CategoryGroup::system);
  EXPECT_FALSE(groupFromRaw("system"));
  EXPECT_EQ(riskFromRaw(1), Risk::review);
  EXPECT_FALSE(riskFromRaw(3));
  EXPECT_EQ(severityFromRaw(3), Severity::high);
  EXPECT_FALSE(severityFromRaw(-1));
  EXPECT_EQ(label(Disposal::quarantine), "Quarantine (undo)");
  EXPECT_EQ(label(Disposal::trash), "Move to Trash");
  EXPECT_EQ(label(Risk::caution), "Caution");
  EXPECT_EQ(label(Severity::medium), "Medium");
  EXPECT_TRUE(Risk::safe < Risk::review && Risk::review < Risk::caution);
  EXPECT_TRUE(Risk::review <= Risk::review && !(Risk::caution <= Risk::review));
}

ScanItem sized(int64_t size) {
  ScanItem item;
  item.size = size;
  return item;
}

TEST(ScanModel, TargetsAndTotals) {
  EXPECT_FALSE(ItemTarget::forEvict("/a").path());
  EXPECT_FALSE(ItemTarget::forCommand({"docker", {"image", "prune"}}).path());
  EXPECT_EQ(ItemTarget::forAdminPath("/Library/Caches/x").path(), "/Library/Caches/x");
  EXPECT_EQ((CommandSpec{"docker", {"image", "prune", "-f"}}.display()), "docker image prune -f");
  CategoryResult empty;
  EXPECT_EQ(empty.totalSize(), 0);
  CategoryResult two{CleanCategory::logs, {sized(5), sized(7)}, {}};
  EXPECT_EQ(two.totalSize(), 12);
  // A total past the 64-bit range saturates instead of wrapping into a small one.
  CategoryResult huge{CleanCategory::logs, {sized(INT64_MAX), sized(1)}, {}};
  EXPECT_EQ(huge.totalSize(), INT64_MAX);
}

ScanItem sampleItem() {
  ScanItem item;
  item.id = "/Users/me/Library/Caches/com.x";
  item.title = "com.x";
  item.target = ItemTarget::forPath("/Users/me/Library/Caches/com.x");
  item.size = 65536;
  item.category = CleanCategory::userCaches;
  item.risk = Risk::safe;
  item.reason = "App cache; rebuilt automatically when needed";
  item.lastUsed = Dates::fromUnixSeconds(1772357400);
  return item;
}

TEST(ScanModel, JsonGoldenTextsAndRoundTrips) {
  ScanItem item = sampleItem();
  EXPECT_EQ(JsonText::compact(toJson(item, DateForm::referenceSeconds)),
            R"({"category":"userCaches","id":"\/Users\/me\/Library\/Caches\/com.x","lastUsed":794050200,)"
            R"("reason":"App cache; rebuilt automatically when needed","risk":0,"size":65536,)"
            R"("target":{"path":{"_0":"\/Users\/me\/Library\/Caches\/com.x"}},"title":"com.x"})");
  EXPECT_EQ(JsonText::compact(toJson(item, DateForm::iso8601)).find(R"("lastUsed":"2026-03-01T09:30:00Z")") != std::string::npos,
            true);
  EXPECT_EQ(JsonText::compact(toJson(ItemTarget::forCommand({"docker", {"image", "prune"}}))),
            R"({"command":{"_0":{"arguments":["image","prune"],"executable":"docker"}}})");
  for (DateForm form : {DateForm::iso8601, DateForm::referenceSeconds}) {
    EXPECT_EQ(scanItemFromJson(toJson(item, form), form), item);
    ScanItem noDate = item;
    noDate.lastUsed.reset();
    noDate.target = ItemTarget::forCommand({"docker", {"system", "prune", "-f"}});
    EXPECT_EQ(toJson(noDate, form).count("lastUsed"), 0u);
    EXPECT_EQ(scanItemFromJson(toJson(noDate, form), form), noDate);
    CategoryResult r{CleanCategory::docker, {noDate}, "docker not found"};
    EXPECT_EQ(categoryResultFromJson(toJson(r, form), form), r);
  }
  for (auto kind : {ItemTarget::forPath("/a"), ItemTarget::forAdminPath("/b"), ItemTarget::forEvict("/c")})
    EXPECT_EQ(itemTargetFromJson(toJson(kind)), kind);
}

TEST(ScanModel, TargetDecodingRejectsBadShapes) {
  const char* bad[] = {
      R"({})", R"({"path":{"_0":"/a"},"evict":{"_0":"/a"}})", R"({"path":{}})", R"({"path":{"_0":5}})",
      R"({"command":{"_0":{"executable":"x"}}})", R"({"bogus":{"_0":"/a"}})", R"("path")",
  };
  for (const char* b : bad) {
    SCOPED_TRACE(b);
    EXPECT_THROW(itemTargetFromJson(Json::parse(b)), DecodeError);
  }
  EXPECT_EQ(itemTargetFromJson(Json::parse(R"({"path":{"_0":"/a"},"other":1})")), ItemTarget::forPath("/a"));
}

}  // namespace
}  // namespace kestrel
