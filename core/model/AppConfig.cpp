// Settings: defaults, strict decoding and the per-category disposal rule.
#include "core/model/AppConfig.h"

namespace kestrel {

Disposal AppConfig::disposal(CleanCategory category) const {
  if (category == CleanCategory::docker) return Disposal::delete_;
  if (auto it = disposalOverrides.find(std::string(rawValue(category))); it != disposalOverrides.end())
    return it->second;
  if (quarantineEverything && category != CleanCategory::trash) return Disposal::quarantine;
  return defaultDisposal(category);
}

Json toJson(const AppConfig& c) {
  Json overrides = Json::object();
  for (const auto& [k, v] : c.disposalOverrides) overrides[k] = rawValue(v);
  return Json{
      {"quarantineRetentionDays", c.quarantineRetentionDays},
      {"quarantineEverything", c.quarantineEverything},
      {"disposalOverrides", overrides},
      {"protectedPaths", c.protectedPaths},
      {"developerRoots", c.developerRoots},
      {"staleProjectDays", c.staleProjectDays},
      {"oldDownloadsDays", c.oldDownloadsDays},
      {"largeFileMinMB", c.largeFileMinMB},
      {"largeFileAgeDays", c.largeFileAgeDays},
      {"xcodeArchiveAgeDays", c.xcodeArchiveAgeDays},
      {"logAgeDays", c.logAgeDays},
      {"minItemAgeHours", c.minItemAgeHours},
      {"hasCompletedOnboarding", c.hasCompletedOnboarding},
      {"queueAdminRemovals", c.queueAdminRemovals},
      {"metricsTextfileDir", c.metricsTextfileDir},
  };
}

AppConfig appConfigFromJson(const Json& j) {
  JsonDecode::object(j, "AppConfig");
  AppConfig c;
  auto int64 = [&](const char* key, int64_t& field) {
    if (auto v = JsonDecode::optInt64(j, key)) field = *v;
  };
  auto boolean = [&](const char* key, bool& field) {
    if (auto v = JsonDecode::optBoolean(j, key)) field = *v;
  };
  int64("quarantineRetentionDays", c.quarantineRetentionDays);
  boolean("quarantineEverything", c.quarantineEverything);
  if (JsonDecode::has(j, "disposalOverrides")) {
    const Json& o = j.at("disposalOverrides");
    if (!o.is_object()) throw DecodeError("Expected an object for disposalOverrides");
    for (auto it = o.begin(); it != o.end(); ++it) c.disposalOverrides[it.key()] = disposalFromJson(it.value());
  }
  if (JsonDecode::has(j, "protectedPaths")) c.protectedPaths = JsonDecode::stringArray(j, "protectedPaths");
  if (JsonDecode::has(j, "developerRoots")) c.developerRoots = JsonDecode::stringArray(j, "developerRoots");
  int64("staleProjectDays", c.staleProjectDays);
  int64("oldDownloadsDays", c.oldDownloadsDays);
  int64("largeFileMinMB", c.largeFileMinMB);
  int64("largeFileAgeDays", c.largeFileAgeDays);
  int64("xcodeArchiveAgeDays", c.xcodeArchiveAgeDays);
  int64("logAgeDays", c.logAgeDays);
  int64("minItemAgeHours", c.minItemAgeHours);
  boolean("hasCompletedOnboarding", c.hasCompletedOnboarding);
  boolean("queueAdminRemovals", c.queueAdminRemovals);
  if (auto v = JsonDecode::optString(j, "metricsTextfileDir")) c.metricsTextfileDir = *v;
  return c;
}

}  // namespace kestrel
