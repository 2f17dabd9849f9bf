// Settings: disposal rules, strict decoding with whole-file fallback, and the saved text.
#include "core/model/AppConfig.h"
#include "core/store/ConfigStore.h"

#include "tests/support/ScratchHome.h"

#include <gtest/gtest.h>

namespace kestrel {
namespace {

using test::ScratchHome;

TEST(AppConfig, DisposalRulesInOrder) {
  const struct Case {
    const char* name;
    CleanCategory category;
    bool everything;
    std::map<std::string, Disposal> overrides;
    Disposal expected;
  } cases[] = {
      {"docker ignores override and everything", CleanCategory::docker, true, {{"docker", Disposal::quarantine}}, Disposal::delete_},
      {"override wins over built-in", CleanCategory::trash, false, {{"trash", Disposal::quarantine}}, Disposal::quarantine},
      {"override wins over everything", CleanCategory::logs, true, {{"logs", Disposal::trash}}, Disposal::trash},
      {"everything spares trash", CleanCategory::trash, true, {}, Disposal::delete_},
      {"everything quarantines cloud copies", CleanCategory::cloudLocalCopies, true, {}, Disposal::quarantine},
      {"built-in quarantine", CleanCategory::installers, false, {}, Disposal::quarantine},
      {"built-in past the table", CleanCategory::orphanedLeftovers, false, {}, Disposal::quarantine},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    AppConfig config;
    config.quarantineEverything = c.everything;
    config.disposalOverrides = c.overrides;
    EXPECT_EQ(config.disposal(c.category), c.expected);
  }
}

TEST(ConfigStore, LoadFallsBackWholesale) {
  AppConfig logs10;
  logs10.logAgeDays = 10;
  AppConfig withOverride;
  withOverride.disposalOverrides["trash"] = Disposal::trash;
  const struct Case {
    const char* name;
    std::optional<std::string> text;  // nothing: no file
    AppConfig expected;
  } cases[] = {
      {"missing file", std::nullopt, AppConfig{}},
      {"one key", R"({"logAgeDays": 10})", logs10},
      {"unknown keys ignored", R"({"logAgeDays": 10, "futureSetting": [1,2]})", logs10},
      {"integral double accepted", R"({"logAgeDays": 10.0})", logs10},
      {"wrong type fails all", R"({"logAgeDays": "10", "quarantineEverything": true})", AppConfig{}},
      {"unknown disposal fails all", R"({"logAgeDays": 10, "disposalOverrides": {"trash": "shred"}})", AppConfig{}},
      {"valid override", R"({"disposalOverrides": {"trash": "trash"}})", withOverride},
      {"null counts as absent", R"({"logAgeDays": null})", AppConfig{}},
      {"damaged", R"({"logAgeDays": 10)", AppConfig{}},
      {"fraction fails all", R"({"logAgeDays": 10.5})", AppConfig{}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    ScratchHome h;
    if (c.text) h.text("Library/Application Support/orvo Kestrel/config.json", *c.text);
    EXPECT_EQ(ConfigStore(h.paths()).load(), c.expected);
  }
}

TEST(ConfigStore, SaveMakesTheFolderAndRoundTrips) {
  ScratchHome h;
  AppConfig config;
  config.protectedPaths = {"~/Projects/keep"};
  config.disposalOverrides["installers"] = Disposal::delete_;
  config.logAgeDays = 11;
  ConfigStore(h.paths()).save(config);  // the support folder does not exist yet
  EXPECT_EQ(ConfigStore(h.paths()).load(), config);
}

}  // namespace
}  // namespace kestrel
