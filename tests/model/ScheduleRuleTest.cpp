// Schedule rules: JSON forms and strict decoding, summaries, defaults, the rules file, UUID text.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <regex>
#include <set>

#include "core/model/ScheduleRule.h"
#include "core/system/StoreFile.h"
#include "core/store/JSONStore.h"
#include "core/store/RuleStore.h"
#include "core/system/Uuid.h"
#include "tests/support/Processes.h"
#include "tests/support/ScratchHome.h"

namespace kestrel {
namespace {

using test::ScratchHome;
using K = ScheduleTrigger::Kind;

const Date kNow = Dates::fromUnixSeconds(1772357400);  // 2026-03-01T09:30:00Z

Json parsed(std::string_view text) {
  auto j = JsonText::parse(text);
  EXPECT_TRUE(j.has_value()) << text;
  return j.value_or(Json());
}

TEST(ScheduleTrigger, JsonFormsSummariesAndCalendarFlag) {
  using T = ScheduleTrigger;
  struct Case {
    ScheduleTrigger trigger;
    const char* json;
    const char* summary;
    bool calendar;
  };
  const Case cases[] = {
      {T::daily(3, 0), R"({"daily":{"hour":3,"minute":0}})", "Every day at 03:00", true},
      {T::weekly(1, 3, 0), R"({"weekly":{"hour":3,"minute":0,"weekday":1}})",
       "Every Sunday at 03:00", true},
      {T::weekly(7, 4, 5), R"({"weekly":{"hour":4,"minute":5,"weekday":7}})",
       "Every Saturday at 04:05", true},
      {T::weekly(9, 4, 5), R"({"weekly":{"hour":4,"minute":5,"weekday":9}})",
       "Every weekday 9 at 04:05", true},
      {T::monthly(31, 23, 59), R"({"monthly":{"day":31,"hour":23,"minute":59}})",
       "Monthly on day 31 at 23:59", true},
      {T::everyHours(1), R"({"everyHours":{"_0":1}})", "Every 1 hour", false},
      {T::everyHours(6), R"({"everyHours":{"_0":6}})", "Every 6 hours", false},
      {T::everyHours(0), R"({"everyHours":{"_0":0}})", "Every 0 hours", false},
      {T::diskFreeBelowPercent(10), R"({"diskFreeBelowPercent":{"_0":10}})",
       "When free space drops below 10.0%", false},
      {T::diskFreeBelowGB(2.5), R"({"diskFreeBelowGB":{"_0":2.5}})",
       "When free space drops below 2.5 GB", false},
      {T::diskFreeBelowGB(0.1), R"({"diskFreeBelowGB":{"_0":0.1}})",
       "When free space drops below 0.1 GB", false},
      {T::forecastFullWithinDays(14), R"({"forecastFullWithinDays":{"_0":14}})",
       "When the disk is predicted to fill within 14 days", false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.json);
    EXPECT_EQ(JsonText::compact(toJson(c.trigger)), c.json);
    EXPECT_EQ(scheduleTriggerFromJson(parsed(c.json)), c.trigger);
    EXPECT_EQ(c.trigger.summary(), c.summary);
    EXPECT_EQ(c.trigger.isCalendar(), c.calendar);
  }
}

TEST(ScheduleTrigger, StrictDecodingRefusesMalformedObjects) {
  const char* bad[] = {
      R"({})", R"({"daily":{"hour":3,"minute":0},"weekly":{"weekday":1,"hour":3,"minute":0}})",
      R"({"daily":{"hour":3,"minute":0},"note":1})", R"({"hourly":{"_0":1}})",
      R"({"daily":{"hour":3}})", R"({"daily":{"hour":"3","minute":0}})",
      R"({"daily":{"hour":3.5,"minute":0}})", R"({"everyHours":{"_0":"6"}})",
      R"({"everyHours":6})", R"({"diskFreeBelowPercent":{}})", R"(["daily"])",
  };
  for (const char* text : bad) {
    SCOPED_TRACE(text);
    EXPECT_THROW(scheduleTriggerFromJson(parsed(text)), DecodeError);
  }
}

TEST(TriggerSource, JsonFormsLabelsAndStrictness) {
  struct Case {
    TriggerSource source;
    const char* json;
    const char* label;
  };
  const Case cases[] = {
      {TriggerSource::manual(), R"({"manual":{}})", "Manual"},
      {TriggerSource::schedule("Weekly deep clean"),
       R"({"schedule":{"ruleName":"Weekly deep clean"}})", "Schedule: Weekly deep clean"},
      {TriggerSource::uninstall("Photo Tool"), R"({"uninstall":{"appName":"Photo Tool"}})",
       "Uninstall: Photo Tool"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.json);
    EXPECT_EQ(JsonText::compact(toJson(c.source)), c.json);
    EXPECT_EQ(triggerSourceFromJson(parsed(c.json)), c.source);
    EXPECT_EQ(c.source.label(), c.label);
  }
  for (const char* bad : {R"({"manual":{},"schedule":{"ruleName":"x"}})", R"({"schedule":{}})",
                          R"({"manual":1})", R"({"auto":{}})", R"("manual")"}) {
    SCOPED_TRACE(bad);
    EXPECT_THROW(triggerSourceFromJson(parsed(bad)), DecodeError);
  }
}

ScheduleRule sampleRule() {
  ScheduleRule r = ScheduleRule::make("Nightly", ScheduleTrigger::daily(2, 30),
                                      {CleanCategory::logs, CleanCategory::userCaches}, kNow);
  r.id = "E621E1F8-C36C-495A-93FC-0C247A3E6E5F";
  r.conditions.minBatteryPercent = 40;
  r.conditions.skipIfAppsRunning = {"com.example.editor"};
  r.maxRisk = Risk::review;
  return r;
}

TEST(ScheduleRule, GoldenTextAndRoundTrips) {
  ScheduleRule r = sampleRule();
  EXPECT_EQ(
      JsonText::compact(toJson(r)),
      R"({"categories":["logs","userCaches"],"conditions":{"cooldownHours":6,"minBatteryPercent":40,)"
      R"("requireACPower":true,"skipIfAppsRunning":["com.example.editor"]},"createdAt":"2026-03-01T09:30:00Z",)"
      R"("dryRun":false,"enabled":true,"id":"E621E1F8-C36C-495A-93FC-0C247A3E6E5F","maxRisk":1,"name":"Nightly",)"
      R"("notify":true,"trigger":{"daily":{"hour":2,"minute":30}}})");
  // Absent optionals stay absent; present ones come back.
  EXPECT_EQ(scheduleRuleFromJson(toJson(r)), r);
  r.lastRun = kNow + std::chrono::hours(1);
  r.lastResult = "Freed 1 MB";
  r.conditions.minIdleMinutes = 5;
  const Json withOptionals = toJson(r);
  EXPECT_EQ(withOptionals.at("lastRun"), "2026-03-01T10:30:00Z");
  EXPECT_EQ(scheduleRuleFromJson(withOptionals), r);
}

TEST(ScheduleRule, StrictDecodingOfRequiredKeys) {
  const Json good = toJson(sampleRule());
  struct Case {
    const char* what;
    std::function<void(Json&)> damage;
  };
  const Case cases[] = {
      {"id missing", [](Json& j) { j.erase("id"); }},
      {"id not a UUID", [](Json& j) { j["id"] = "E621E1F8C36C495A93FC0C247A3E6E5F"; }},
      {"name ill-typed", [](Json& j) { j["name"] = 3; }},
      {"enabled missing", [](Json& j) { j.erase("enabled"); }},
      {"trigger two keys",
       [](Json& j) {
         j["trigger"]["weekly"] = Json{{"weekday", 1}, {"hour", 1}, {"minute", 1}};
       }},
      {"conditions missing cooldown", [](Json& j) { j["conditions"].erase("cooldownHours"); }},
      {"conditions apps missing", [](Json& j) { j["conditions"].erase("skipIfAppsRunning"); }},
      {"unknown category", [](Json& j) { j["categories"].push_back("everything"); }},
      {"maxRisk out of range", [](Json& j) { j["maxRisk"] = 7; }},
      {"dryRun missing", [](Json& j) { j.erase("dryRun"); }},
      {"createdAt not ISO", [](Json& j) { j["createdAt"] = 12345; }},
      {"lastRun bad", [](Json& j) { j["lastRun"] = "yesterday"; }},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    Json j = good;
    c.damage(j);
    EXPECT_THROW(scheduleRuleFromJson(j), DecodeError);
  }
  Json lower = good;
  lower["id"] = "e621e1f8-c36c-495a-93fc-0c247a3e6e5f";
  EXPECT_EQ(scheduleRuleFromJson(lower).id, "E621E1F8-C36C-495A-93FC-0C247A3E6E5F");
}

TEST(ScheduleRule, DefaultsAreTheFourShippedRulesWithFreshIds) {
  const auto a = ScheduleRule::defaults(kNow);
  const auto b = ScheduleRule::defaults(kNow);
  ASSERT_EQ(a.size(), 4u);
  struct Case {
    const char* name;
    bool enabled;
    ScheduleTrigger trigger;
    bool ac;
    std::optional<int64_t> idle;
    std::vector<std::string> apps;
    std::vector<CleanCategory> categories;
  };
  using C = CleanCategory;
  using T = ScheduleTrigger;
  const Case cases[] = {
      {"Weekly deep clean", true, T::weekly(1, 3, 0), true, 10, {},
       {C::userCaches, C::logs, C::crashReports, C::savedAppState, C::mailDownloads,
        C::iosUpdates}},
      {"Developer junk", true, T::weekly(7, 4, 0), true, 10, {"com.apple.dt.Xcode"},
       {C::xcode, C::simulators, C::packageCaches, C::projectArtifacts}},
      {"Low disk emergency", true, T::diskFreeBelowPercent(10.0), false, std::nullopt, {},
       {C::userCaches, C::xcode, C::packageCaches, C::logs, C::trash}},
      {"Stay ahead of a full disk", false, T::forecastFullWithinDays(14), true, std::nullopt, {},
       {C::userCaches, C::xcode, C::simulators, C::packageCaches}},
  };
  std::set<std::string> ids;
  for (size_t i = 0; i < 4; ++i) {
    const auto& c = cases[i];
    const auto& r = a[i];
    SCOPED_TRACE(c.name);
    EXPECT_EQ(r.name, c.name);
    EXPECT_EQ(r.enabled, c.enabled);
    EXPECT_EQ(r.trigger, c.trigger);
    EXPECT_EQ(r.conditions.requireACPower, c.ac);
    EXPECT_EQ(r.conditions.minIdleMinutes, c.idle);
    EXPECT_EQ(r.conditions.minBatteryPercent, std::nullopt);
    EXPECT_EQ(r.conditions.skipIfAppsRunning, c.apps);
    EXPECT_EQ(r.conditions.cooldownHours, 6.0);
    EXPECT_EQ(r.categories, c.categories);
    EXPECT_EQ(r.maxRisk, Risk::safe);
    EXPECT_TRUE(r.notify);
    EXPECT_FALSE(r.dryRun);
    EXPECT_EQ(r.createdAt, kNow);
    EXPECT_FALSE(r.lastRun || r.lastResult);
    ids.insert(r.id);
    ids.insert(b[i].id);
  }
  EXPECT_EQ(ids.size(), 8u);
}

TEST(RuleStore, LoadsSavedRulesAndFallsBackToDefaults) {
  struct Case {
    const char* what;
    std::optional<std::string> fileText;  // nothing: no file
    size_t expectedCount;
    bool expectDefaults;
  };
  const std::string oneGood = toJson(std::vector<ScheduleRule>{sampleRule()}).dump();
  Json goodAndBad = toJson(std::vector<ScheduleRule>{sampleRule(), sampleRule()});
  goodAndBad[1]["trigger"]["everyHours"] = Json{{"_0", 2}};
  const Case cases[] = {
      {"no file", std::nullopt, 4, true}, {"empty list", "[]", 0, false},
      {"one rule", oneGood, 1, false},    {"one bad rule of two", goodAndBad.dump(), 4, true},
      {"not JSON", "{rules", 4, true},    {"an object", "{}", 4, true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    ScratchHome h;
    if (c.fileText) StoreFile::writeAtomically(*c.fileText, h.paths().rulesFile());
    RuleStore store(h.paths());
    const auto rules = store.load(kNow);
    EXPECT_EQ(rules.size(), c.expectedCount);
    if (c.expectDefaults) {
      EXPECT_EQ(rules.front().name, "Weekly deep clean");
    }
    // Loading never writes: a bad file stays for the next save to replace.
    EXPECT_EQ(fs::exists(h.paths().rulesFile()), c.fileText.has_value());
  }
}

TEST(RuleStore, SaveReplacesTheFileAndRoundTrips) {
  ScratchHome h;
  RuleStore store(h.paths());
  StoreFile::writeAtomically("garbage", h.paths().rulesFile());
  auto rules = ScheduleRule::defaults(kNow);
  rules[0].lastRun = kNow;
  store.save(rules);
  EXPECT_EQ(store.load(kNow), rules);
  const std::string text = test::readText(h.paths().rulesFile());
  EXPECT_NE(text.find("\"trigger\" : {\n      \"weekly\""), std::string::npos) << text;
  // A file where the support folder should be makes the save fail loudly.
  ScratchHome blocked;
  blocked.file("Library/Application Support", 1);
  EXPECT_ANY_THROW(RuleStore(blocked.paths()).save(rules));
}

TEST(RuleStore, ConcurrentUpdatesFromSeveralProcessesLoseNothing) {
  ScratchHome h;
  RuleStore(h.paths()).save({});
  constexpr int kProcesses = 4, kEach = 25;
  const auto adder = [&](int p) {
    RuleStore store(h.paths());
    for (int i = 0; i < kEach; ++i) {
      store.update([&](std::vector<ScheduleRule>& rules) {
        rules.push_back(ScheduleRule::make("p" + std::to_string(p) + "-" + std::to_string(i),
                                           ScheduleTrigger::everyHours(1), {CleanCategory::logs}, kNow));
      });
    }
  };
  EXPECT_EQ(test::inChildProcesses(kProcesses, adder), kProcesses);
  const auto rules = RuleStore(h.paths()).load(kNow);
  std::set<std::string> names;
  for (const auto& r : rules) names.insert(r.name);
  EXPECT_EQ(rules.size(), static_cast<size_t>(kProcesses * kEach));
  EXPECT_EQ(names.size(), static_cast<size_t>(kProcesses * kEach));
  EXPECT_TRUE(fs::exists(Paths::lockFileFor(h.paths().rulesFile())));
}

TEST(RuleStore, AnUpdateNeverReplacesADamagedFile) {
  ScratchHome h;
  StoreFile::writeAtomically("[{\"name\": \"typo\"", h.paths().rulesFile());
  bool changed = false;
  try {
    RuleStore(h.paths()).update([&](std::vector<ScheduleRule>&) { changed = true; });
    ADD_FAILURE() << "a damaged rules file was updated";
  } catch (const JSONStore::StoreError& e) {
    EXPECT_EQ(e.kind(), JSONStore::StoreError::Kind::damaged);
  }
  EXPECT_FALSE(changed);
  EXPECT_EQ(test::readText(h.paths().rulesFile()), "[{\"name\": \"typo\"");
}

TEST(Uuid, MakesVersionFourUpperCaseAndParsesStrictly) {
  const std::regex form("[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}");
  std::set<std::string> seen;
  for (int i = 0; i < 200; ++i) {
    const std::string id = Uuid::make();
    EXPECT_TRUE(std::regex_match(id, form)) << id;
    seen.insert(id);
  }
  EXPECT_EQ(seen.size(), 200u);
  struct Case {
    const char* text;
    std::optional<std::string> result;
  };
  const Case cases[] = {
      {"E621E1F8-C36C-495A-93FC-0C247A3E6E5F", "E621E1F8-C36C-495A-93FC-0C247A3E6E5F"},
      {"e621e1f8-c36c-495a-93fc-0c247a3e6e5f", "E621E1F8-C36C-495A-93FC-0C247A3E6E5F"},
      {"E621E1F8C36C495A93FC0C247A3E6E5F", std::nullopt},
      {"{E621E1F8-C36C-495A-93FC-0C247A3E6E5F}", std::nullopt},
      {"E621E1F8-C36C-495A-93FC-0C247A3E6E5F ", std::nullopt},
      {"G621E1F8-C36C-495A-93FC-0C247A3E6E5F", std::nullopt},
      {"E621E1F8-C36C-495A-93FC+0C247A3E6E5F", std::nullopt},
      {"", std::nullopt},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    EXPECT_EQ(Uuid::parse(c.text), c.result);
  }
}

}  // namespace
}  // namespace kestrel
