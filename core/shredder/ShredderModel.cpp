// The shredder's records and their JSON forms.
#include "core/shredder/ShredderModel.h"

#include "core/system/Uuid.h"

#include <algorithm>
#include <cctype>
#include <limits>

namespace kestrel {
namespace {

std::string lowered(std::string s) {
  std::transform(s.begin(), s.end(), s.begin(), [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return s;
}

Date dateFromJson(const Json& obj, const char* key) {
  const auto d = Dates::parseISO8601(JsonDecode::string(obj, key));
  if (!d) throw DecodeError(std::string(key) + ": not an ISO 8601 date");
  return *d;
}

Json stringArray(const std::vector<std::string>& v) {
  Json out = Json::array();
  for (const auto& s : v) out.push_back(s);
  return out;
}

}  // namespace

bool ShredderSettings::isSkipped(const std::filesystem::path& file) const {
  const std::string ext = file.extension().string();
  if (ext.size() <= 1) return false;
  const std::string mine = lowered(ext.substr(1));
  return std::any_of(skipExtensions.begin(), skipExtensions.end(),
                     [&](const std::string& e) { return lowered(e) == mine; });
}

std::vector<std::string> ShredderSettings::ruleSummary() const {
  std::vector<std::string> lines;
  if (dedupeDownloads) lines.push_back("Duplicate downloads, the moment they land");
  if (shredInstallersAfterDays >= 1)
    lines.push_back("Installers older than " + std::to_string(shredInstallersAfterDays) + " days");
  if (emptyTrashAfterDays >= 1) lines.push_back("Trash older than " + std::to_string(emptyTrashAfterDays) + " days");
  if (tidyScreenshotsAfterDays >= 1)
    lines.push_back("Screenshots older than " + std::to_string(tidyScreenshotsAfterDays) + " days");
  return lines;
}

int64_t ShredderSettings::maxAutoBytes() const {
  int64_t out = 0;
  if (__builtin_mul_overflow(maxAutoSizeMB, int64_t{1048576}, &out))
    return maxAutoSizeMB < 0 ? std::numeric_limits<int64_t>::min() : std::numeric_limits<int64_t>::max();
  return out;
}

Json toJson(const ShredderSettings& s) {
  return Json{{"approved", s.approved},
              {"enabled", s.enabled},
              {"folders", stringArray(s.folders)},
              {"dedupeDownloads", s.dedupeDownloads},
              {"shredInstallersAfterDays", s.shredInstallersAfterDays},
              {"emptyTrashAfterDays", s.emptyTrashAfterDays},
              {"tidyScreenshotsAfterDays", s.tidyScreenshotsAfterDays},
              {"maxAutoSizeMB", s.maxAutoSizeMB},
              {"quarantineFirst", s.quarantineFirst},
              {"notifyEachEvent", s.notifyEachEvent},
              {"skipExtensions", stringArray(s.skipExtensions)},
              {"reviewSkipped", s.reviewSkipped},
              {"keepNewest", s.keepNewest},
              {"settleSeconds", s.settleSeconds},
              {"ignoredPaths", stringArray(s.ignoredPaths)}};
}

ShredderSettings shredderSettingsFromJson(const Json& j) {
  using namespace JsonDecode;
  const Json& o = object(j, "shredder settings");
  ShredderSettings s;
  s.approved = boolean(o, "approved");
  s.enabled = boolean(o, "enabled");
  s.folders = stringArray(o, "folders");
  s.dedupeDownloads = boolean(o, "dedupeDownloads");
  s.shredInstallersAfterDays = int64(o, "shredInstallersAfterDays");
  s.emptyTrashAfterDays = int64(o, "emptyTrashAfterDays");
  s.tidyScreenshotsAfterDays = int64(o, "tidyScreenshotsAfterDays");
  s.maxAutoSizeMB = int64(o, "maxAutoSizeMB");
  s.quarantineFirst = boolean(o, "quarantineFirst");
  s.notifyEachEvent = boolean(o, "notifyEachEvent");
  s.skipExtensions = stringArray(o, "skipExtensions");
  s.reviewSkipped = boolean(o, "reviewSkipped");
  s.keepNewest = boolean(o, "keepNewest");
  s.settleSeconds = int64(o, "settleSeconds");
  s.ignoredPaths = stringArray(o, "ignoredPaths");
  return s;
}

std::string ShredEvent::name() const { return std::filesystem::path(path).filename().string(); }

Json toJson(const ShredEvent& e) {
  Json j{{"id", e.id},     {"date", Dates::iso8601(e.date)}, {"path", e.path},
         {"rule", e.rule}, {"reason", e.reason},             {"size", e.size},
         {"restorable", e.restorable}};
  if (e.quarantineSession) j["quarantineSession"] = *e.quarantineSession;
  if (e.twinPath) j["twinPath"] = *e.twinPath;
  return j;
}

ShredEvent shredEventFromJson(const Json& j) {
  using namespace JsonDecode;
  const Json& o = object(j, "shred event");
  ShredEvent e;
  e.id = Uuid::fromJson(o.contains("id") ? o.at("id") : Json());
  e.date = dateFromJson(o, "date");
  e.path = string(o, "path");
  e.rule = string(o, "rule");
  e.reason = string(o, "reason");
  e.size = int64(o, "size");
  e.restorable = boolean(o, "restorable");
  e.quarantineSession = optString(o, "quarantineSession");
  e.twinPath = optString(o, "twinPath");
  return e;
}

Json toJson(const ShredCandidate& c) {
  return Json{{"path", c.path}, {"twinPath", c.twinPath}, {"size", c.size},
              {"rule", c.rule}, {"reason", c.reason},     {"detectedAt", Dates::iso8601(c.detectedAt)}};
}

ShredCandidate shredCandidateFromJson(const Json& j) {
  using namespace JsonDecode;
  const Json& o = object(j, "shred candidate");
  return ShredCandidate{string(o, "path"), string(o, "twinPath"), int64(o, "size"),
                        string(o, "rule"), string(o, "reason"),   dateFromJson(o, "detectedAt")};
}

}  // namespace kestrel
