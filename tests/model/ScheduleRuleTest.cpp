// Schedule rules: JSON forms and strict decoding, summaries, defaults, the rules file, UUID text.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <regex>
#include <set>

#include "core/model/ScheduleRule.h"
#include "core/system/fs/StoreFile.h"
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
  const struct Case {
    ScheduleTrigger trigger;
    const char* json;
    const char* summary;
    bool calendar;
  } cases[] = {
      {T::daily(3, 0), R"({"daily":{"hour":3,"minute":0}})", "Every day at 03:00", true},
      {T::weekly(1, 3, 0), R"({"weekly":{"hour":3,"minute":0,"weekday":1}})",
       "Every Sunday at 03:00", true},
      {T::weekly(9, 4, 5), R"({"weekly":{"hour":4,"minute":5,"weekday":9}})",
       "Every weekday 9 at 04:05", true},
      {T::monthly(31, 23, 59), R"({"monthly":{"day":31,"hour":23,"minute":59}})",
       "Monthly on day 31 at 23:59", true},
      {T::everyHours(1), R"({"everyHours":{"_0":1}})", "Every 1 hour", false},
      {T::everyHours(6), R"({"everyHours":{"_0":6}})", "Every 6 hours", false},
      {T::diskFreeBelowPercent(10), R"({"diskFreeBelowPercent":{"_0":10}})",
       "When free space drops below 10.0%", false},
      {T::diskFreeBelowGB(2.5), R"({"diskFreeBelowGB":{"_0":2.5}})",
       "When free space drops below 2.5 GB", false},
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
  for (const char* text : bad) EXPECT_THROW(scheduleTriggerFromJson(parsed(text)), DecodeError) << text;
}

TEST(TriggerSource, JsonFormsLabelsAndStrictness) {
  const struct Case {
    TriggerSource source;
    const char* json;
    const char* label;
  } cases[] = {
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

TEST(ScheduleRule, RoundTripsWithAndWithoutOptionals) {
  ScheduleRule r = sampleRule();
  EXPECT_FALSE(toJson(r).contains("lastRun"));
  EXPECT_EQ(scheduleRuleFromJson(toJson(r)), r);
  r.lastRun = kNow + std::chrono::hours(1);
  r.lastResult = "Freed 1 MB";
  r.conditions.minIdleMinutes = 5;
  EXPECT_EQ(toJson(r).at("lastRun"), "2026-03-01T10:30:00Z");
  EXPECT_EQ(scheduleRuleFromJson(toJson(r)), r);
}

TEST(ScheduleRule, StrictDecodingOfRequiredKeys) {
  const Json good = toJson(sampleRule());
  const struct Case {
    const char* what;
    std::function<void(Json&)> damage;
  } cases[] = {
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
}

TEST(ScheduleRule, DefaultsGetFreshIdsEachTime) {
  const auto a = ScheduleRule::defaults(kNow), b = ScheduleRule::defaults(kNow);
  std::set<std::string> ids;
  for (size_t i = 0; i < a.size(); ++i) ids.insert({a[i].id, b[i].id});
  EXPECT_EQ(ids.size(), 2 * a.size());
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
  EXPECT_EQ(Uuid::parse("e621e1f8-c36c-495a-93fc-0c247a3e6e5f"), "E621E1F8-C36C-495A-93FC-0C247A3E6E5F");
  for (const char* bad : {"E621E1F8C36C495A93FC0C247A3E6E5F", "{E621E1F8-C36C-495A-93FC-0C247A3E6E5F}",
                          "E621E1F8-C36C-495A-93FC-0C247A3E6E5F ", "G621E1F8-C36C-495A-93FC-0C247A3E6E5F",
                          "E621E1F8-C36C-495A-93FC+0C247A3E6E5F", ""})
    EXPECT_FALSE(Uuid::parse(bad)) << bad;
}

}  // namespace
}  // namespace kestrel
