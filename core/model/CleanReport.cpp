// JSON form of clean reports.
#include "core/model/CleanReport.h"

#include "core/base/ByteFormat.h"

namespace kestrel {

Json toJson(const CleanFailure& f) { return Json{{"itemID", f.itemID}, {"message", f.message}}; }

Json toJson(const CleanReport& r) {
  Json failures = Json::array();
  for (const auto& f : r.failures) failures.push_back(toJson(f));
  Json j{{"freedBytes", r.freedBytes},         {"evictedBytes", r.evictedBytes},
         {"quarantinedBytes", r.quarantinedBytes}, {"trashedBytes", r.trashedBytes},
         {"itemsProcessed", r.itemsProcessed}, {"failures", failures},
         {"skippedProtected", r.skippedProtected}, {"deferredAdmin", r.deferredAdmin}};
  if (r.quarantineSessionID) j["quarantineSessionID"] = *r.quarantineSessionID;
  return j;
}

CleanFailure cleanFailureFromJson(const Json& j) {
  JsonDecode::object(j, "CleanFailure");
  return {JsonDecode::string(j, "itemID"), JsonDecode::string(j, "message")};
}

CleanReport cleanReportFromJson(const Json& j) {
  JsonDecode::object(j, "CleanReport");
  CleanReport r;
  r.freedBytes = JsonDecode::int64(j, "freedBytes");
  r.evictedBytes = JsonDecode::int64(j, "evictedBytes");
  r.quarantinedBytes = JsonDecode::int64(j, "quarantinedBytes");
  r.trashedBytes = JsonDecode::int64(j, "trashedBytes");
  r.itemsProcessed = JsonDecode::int64(j, "itemsProcessed");
  if (!JsonDecode::has(j, "failures") || !j.at("failures").is_array()) throw DecodeError("Expected an array for failures");
  for (const auto& f : j.at("failures")) r.failures.push_back(cleanFailureFromJson(f));
  r.quarantineSessionID = JsonDecode::optString(j, "quarantineSessionID");
  r.skippedProtected = JsonDecode::stringArray(j, "skippedProtected");
  r.deferredAdmin = JsonDecode::int64(j, "deferredAdmin");
  return r;
}

std::string CleanReport::summary(bool dryRun) const {
  const CleanReport& r = *this;
  std::vector<std::string> parts;
  if (r.freedBytes >= 1) parts.push_back((dryRun ? "Would free " : "Freed ") + ByteFormat::string(r.freedBytes));
  if (r.quarantinedBytes >= 1) parts.push_back(ByteFormat::string(r.quarantinedBytes) + " to quarantine");
  if (r.trashedBytes >= 1) parts.push_back(ByteFormat::string(r.trashedBytes) + " to Trash");
  if (r.evictedBytes >= 1) parts.push_back(ByteFormat::string(r.evictedBytes) + " offloaded to cloud");
  if (!r.failures.empty()) parts.push_back(std::to_string(r.failures.size()) + " failed");
  if (parts.empty()) return "Nothing to clean";
  std::string out;
  for (size_t i = 0; i < parts.size(); ++i) out += (i ? ", " : "") + parts[i];
  return out;
}

}  // namespace kestrel
