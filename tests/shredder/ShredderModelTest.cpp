// Shredder records: strict settings decoding, the skip list, the rule summary, JSON round trips.
#include "core/shredder/ShredderStore.h"
#include "core/store/JSONStore.h"
#include "tests/support/ScratchHome.h"

#include <gtest/gtest.h>

namespace kestrel::test {
namespace {

TEST(ShredderSettings, EveryKeyIsRequiredAndAMissingOneMeansAllDefaults) {
  ShredderSettings custom;
  custom.approved = true;
  custom.enabled = true;
  custom.settleSeconds = 9;
  custom.folders = {"/elsewhere"};
  const Json full = toJson(custom);
  ASSERT_EQ(full.size(), 15u);
  EXPECT_EQ(shredderSettingsFromJson(full), custom);

  ScratchHome h;
  const ShredderStore store(h.paths());
  for (const auto& [key, _] : full.items()) {
    SCOPED_TRACE(key);
    Json partial = full;
    partial.erase(key);
    JSONStore::save(partial, h.paths().shredderSettingsFile());
    EXPECT_EQ(store.load(), ShredderSettings{});
  }
  struct Case {
    const char* key;
    Json value;
  } wrongTypes[] = {{"approved", "yes"}, {"settleSeconds", 1.5}, {"folders", "~/Downloads"}, {"ignoredPaths", {1}}};
  for (const auto& c : wrongTypes) {
    SCOPED_TRACE(c.key);
    Json bad = full;
    bad[c.key] = c.value;
    EXPECT_THROW(shredderSettingsFromJson(bad), DecodeError);
  }
  store.save(custom);
  EXPECT_EQ(store.load(), custom);
}

TEST(ShredderSettings, SkipListComparesLowerCasedWholeExtensions) {
  ShredderSettings s;
  struct Case {
    const char* file;
    bool skipped;
  } cases[] = {{"photo.MP4", true}, {"page.Html", true}, {"README", false}, {"archive.mp4.zip", false},
               {".mp4", false},     {"cut.mp", false},   {"x.DOCX", true}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.file);
    EXPECT_EQ(s.isSkipped(fs::path("/d") / c.file), c.skipped);
  }
  s.skipExtensions = {"ZIP"};
  EXPECT_TRUE(s.isSkipped("/d/a.zip"));
}

TEST(ShredderSettings, RuleSummaryListsTheRulesThatAreOn) {
  ShredderSettings s;
  EXPECT_EQ(s.ruleSummary(), (std::vector<std::string>{"Duplicate downloads, the moment they land",
                                                       "Installers older than 14 days", "Trash older than 30 days"}));
  s.dedupeDownloads = false;
  s.shredInstallersAfterDays = 0;
  s.emptyTrashAfterDays = -1;
  s.tidyScreenshotsAfterDays = 7;
  EXPECT_EQ(s.ruleSummary(), (std::vector<std::string>{"Screenshots older than 7 days"}));
}

TEST(ShredRecords, RoundTripThroughJson) {
  const Date when = Dates::fromUnixSeconds(1700000000);
  ShredEvent e{"0A1B2C3D-0000-4000-8000-000000000001", when, "/h/Downloads/a (1).zip", "Duplicate download",
               "Byte-identical to a.zip, which you already had", 5000, true, "20231114-221320-ABCDEF",
               "/h/Downloads/a.zip"};
  EXPECT_EQ(shredEventFromJson(toJson(e)), e);
  EXPECT_EQ(e.name(), "a (1).zip");
  EXPECT_EQ(toJson(e)["date"], "2023-11-14T22:13:20Z");
  e.quarantineSession.reset();
  e.twinPath.reset();
  EXPECT_FALSE(toJson(e).contains("twinPath"));
  EXPECT_EQ(shredEventFromJson(toJson(e)), e);
  const ShredCandidate c{"/h/Downloads/m (1).mp4", "/h/Downloads/m.mp4", 9000, "Duplicate download", "r", when};
  EXPECT_EQ(shredCandidateFromJson(toJson(c)), c);
  EXPECT_THROW(shredEventFromJson(Json{{"id", "nope"}}), DecodeError);
}

}  // namespace
}  // namespace kestrel::test
