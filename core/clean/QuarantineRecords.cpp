// Quarantine records: sessions and entries, their JSON forms, and the errors users read.
#include "core/clean/Quarantine.h"

#include <algorithm>

namespace kestrel {
namespace {

int64_t checkedAdd(int64_t a, int64_t b) {
  int64_t sum;
  if (__builtin_add_overflow(a, b, &sum)) return b > 0 ? INT64_MAX : INT64_MIN;
  return sum;
}

bool isPlainName(const std::string& name) {
  return !name.empty() && name != "." && name != ".." && name.find('/') == std::string::npos &&
         name.find('\0') == std::string::npos;
}

}  // namespace

bool isQuarantineSessionID(std::string_view id) {
  return !id.empty() && id[0] != '.' && id.find('/') == std::string_view::npos &&
         id.find("..") == std::string_view::npos && id.find('\0') == std::string_view::npos;
}

int64_t QuarantineSession::totalSize() const {
  int64_t total = 0;
  for (const auto& e : entries) {
    if (!e.restored) total = checkedAdd(total, e.size);
  }
  return total;
}

int64_t QuarantineSession::activeCount() const {
  return std::count_if(entries.begin(), entries.end(),
                       [](const QuarantineEntry& e) { return !e.restored; }) +
         static_cast<int64_t>(damagedEntries.size());
}

std::string DamagedQuarantineEntry::id() const {
  return storedName ? *storedName : "entry " + std::to_string(position);
}

Json toJson(const QuarantineEntry& e) {
  Json j = e.extra.is_object() ? e.extra : Json::object();
  j["originalPath"] = e.originalPath;
  j["storedName"] = e.storedName;
  j["size"] = e.size;
  j["category"] = std::string(rawValue(e.category));
  j["restored"] = e.restored;
  if (e.moving) j["state"] = "moving";
  if (e.identity) {
    j["dev"] = static_cast<uint64_t>(e.identity->dev);
    j["ino"] = static_cast<uint64_t>(e.identity->ino);
  }
  if (e.orphan) j["orphan"] = true;
  return j;
}

QuarantineEntry quarantineEntryFromJson(const Json& j) {
  JsonDecode::object(j, "QuarantineEntry");
  QuarantineEntry e;
  e.originalPath = JsonDecode::string(j, "originalPath");
  e.storedName = JsonDecode::string(j, "storedName");
  e.size = JsonDecode::int64(j, "size");
  auto category = j.find("category");
  if (category == j.end()) throw DecodeError("No value associated with key category");
  e.category = categoryFromJson(*category);
  e.restored = JsonDecode::boolean(j, "restored");
  // The bookkeeping keys are advisory: when damaged they are ignored, never fatal.
  auto state = j.find("state");
  e.moving = state != j.end() && state->is_string() && state->get<std::string>() == "moving";
  auto dev = j.find("dev"), ino = j.find("ino");
  if (dev != j.end() && ino != j.end() && dev->is_number_unsigned() && ino->is_number_unsigned()) {
    e.identity = FileIdentity{static_cast<dev_t>(dev->get<uint64_t>()),
                              static_cast<ino_t>(ino->get<uint64_t>())};
  }
  auto orphan = j.find("orphan");
  e.orphan = orphan != j.end() && orphan->is_boolean() && orphan->get<bool>();
  // A stored name is one name inside "items"; anything else would let a manifest reach outside it.
  if (!isPlainName(e.storedName)) throw DecodeError("Invalid stored name " + e.storedName);
  static const char* const kKnown[] = {"originalPath", "storedName", "size", "category", "restored",
                                       "state",        "dev",        "ino",  "orphan"};
  for (auto it = j.begin(); it != j.end(); ++it) {
    if (std::find_if(std::begin(kKnown), std::end(kKnown),
                     [&](const char* k) { return it.key() == k; }) != std::end(kKnown))
      continue;
    if (!e.extra.is_object()) e.extra = Json::object();
    e.extra[it.key()] = it.value();
  }
  return e;
}

Json toJson(const QuarantineSession& s) {
  // Damaged entries go back to the places they were read from.
  Json entries = Json::array();
  size_t good = 0, damaged = 0;
  const size_t total = s.entries.size() + s.damagedEntries.size();
  for (size_t pos = 0; pos < total; ++pos) {
    if (damaged < s.damagedEntries.size() &&
        (s.damagedEntries[damaged].position <= pos || good == s.entries.size())) {
      entries.push_back(s.damagedEntries[damaged++].raw);
    } else {
      entries.push_back(toJson(s.entries[good++]));
    }
  }
  Json j = s.extra.is_object() ? s.extra : Json::object();
  j["id"] = s.id;
  j["createdAt"] = dateToJson(s.createdAt, DateForm::iso8601);
  j["expiresAt"] = dateToJson(s.expiresAt, DateForm::iso8601);
  j["trigger"] = toJson(s.trigger);
  j["entries"] = std::move(entries);
  return j;
}

QuarantineSession quarantineSessionFromJson(const Json& j) {
  JsonDecode::object(j, "QuarantineSession");
  QuarantineSession s;
  s.id = JsonDecode::string(j, "id");
  for (const char* key : {"createdAt", "expiresAt", "trigger", "entries"}) {
    if (j.find(key) == j.end())
      throw DecodeError(std::string("No value associated with key ") + key);
  }
  s.createdAt = dateFromJson(j.at("createdAt"), DateForm::iso8601);
  s.expiresAt = dateFromJson(j.at("expiresAt"), DateForm::iso8601);
  s.trigger = triggerSourceFromJson(j.at("trigger"));
  const Json& entries = j.at("entries");
  if (!entries.is_array()) throw DecodeError("Expected an array for entries");
  for (size_t i = 0; i < entries.size(); ++i) {
    const Json& e = entries[i];
    try {
      s.entries.push_back(quarantineEntryFromJson(e));
    } catch (const DecodeError&) {
      // One bad entry must not hide the rest of the session: keep it as it is.
      DamagedQuarantineEntry d{i, e, std::nullopt};
      if (auto name = e.is_object() ? e.find("storedName") : e.end();
          e.is_object() && name != e.end() && name->is_string())
        d.storedName = name->get<std::string>();
      s.damagedEntries.push_back(std::move(d));
    }
  }
  for (auto it = j.begin(); it != j.end(); ++it) {
    const std::string& k = it.key();
    if (k == "id" || k == "createdAt" || k == "expiresAt" || k == "trigger" || k == "entries")
      continue;
    if (!s.extra.is_object()) s.extra = Json::object();
    s.extra[k] = it.value();
  }
  return s;
}

QuarantineAddError QuarantineAddError::differentVolume(const std::string& name) {
  return {Kind::differentVolume, name +
                                     " is on another drive \xE2\x80\x94 quarantining it would copy "
                                     "the whole file onto this Mac"};
}

QuarantineError QuarantineError::destinationExists(const std::string& path) {
  return {Kind::destinationExists,
          "Something already exists at " + path + ". Move it first, then restore."};
}

QuarantineError QuarantineError::missing(const std::string& path) {
  return {Kind::missing, "Quarantined copy is missing: " + path};
}

QuarantineError QuarantineError::damaged(const std::string& itemsFolder) {
  return {Kind::damaged, "This quarantine entry is damaged; its item stays in " + itemsFolder};
}

}  // namespace kestrel
