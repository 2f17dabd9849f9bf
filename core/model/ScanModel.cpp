// Scan data model: the category table, enum texts and the JSON forms of items and results.
#include "core/model/ScanModel.h"

#include <cstdlib>
#include <cstdio>

namespace kestrel {
namespace {

// One row per category, every attribute in it. Regenerable: the owning software rebuilds it.
struct CategoryInfo {
  std::string_view raw, displayName, systemImage;
  CategoryGroup group;
  bool regenerable, selected;
  Disposal disposal;
};

constexpr bool regen = true, kept = false, on = true, off = false;
constexpr Disposal del = Disposal::delete_, quar = Disposal::quarantine;

// clang-format off
constexpr CategoryInfo kCategories[kCategoryCount] = {
    {"userCaches", "User Caches", "archivebox", CategoryGroup::system,                                     regen, on , del},
    {"logs", "Logs", "doc.text", CategoryGroup::system,                                                    regen, on , del},
    {"crashReports", "Crash & Diagnostic Reports", "exclamationmark.triangle", CategoryGroup::system,      regen, on , del},
    {"trash", "Trash", "trash", CategoryGroup::system,                                                     kept , on , del},
    {"savedAppState", "Saved Window State", "macwindow", CategoryGroup::system,                            regen, on , del},
    {"mailDownloads", "Mail Attachments Cache", "envelope", CategoryGroup::system,                         regen, on , del},
    {"iosBackups", "iPhone/iPad Backups", "iphone", CategoryGroup::personal,                               kept , off, quar},
    {"iosUpdates", "iOS Firmware Files", "arrow.down.app", CategoryGroup::personal,                        kept , off, quar},
    {"oldDownloads", "Old Downloads", "arrow.down.circle", CategoryGroup::personal,                        kept , off, quar},
    {"installers", "Leftover Installers (.dmg/.pkg)", "shippingbox", CategoryGroup::personal,              kept , off, quar},
    {"largeOldFiles", "Large & Forgotten Files", "externaldrive", CategoryGroup::personal,                 kept , off, quar},
    {"xcode", "Xcode Build Data", "hammer", CategoryGroup::developer,                                      regen, on , del},
    {"simulators", "Simulators & Device Support", "ipad.and.iphone", CategoryGroup::developer,             regen, on , del},
    {"projectArtifacts", "Stale Project Dependencies", "folder.badge.gearshape", CategoryGroup::developer, regen, on , del},
    {"packageCaches", "Package Manager Caches", "cube.box", CategoryGroup::developer,                      regen, on , del},
    {"docker", "Docker", "server.rack", CategoryGroup::developer,                                          regen, on , del},
    {"duplicates", "Duplicate Files", "doc.on.doc", CategoryGroup::clutter,                                kept , off, quar},
    {"similarPhotos", "Similar Photos", "photo.on.rectangle.angled", CategoryGroup::clutter,               kept , off, quar},
    {"cloudLocalCopies", "Cloud Files Stored Locally", "icloud.and.arrow.up", CategoryGroup::cloud,        kept , off, del},
    {"securityThreats", "Suspicious Background Items", "shield.lefthalf.filled", CategoryGroup::security,  kept , off, quar},
    {"appBundle", "Applications", "app", CategoryGroup::apps,                                              kept , off, quar},
    {"appLeftovers", "App Leftovers", "app.badge", CategoryGroup::apps,                                    kept , off, quar},
    {"orphanedLeftovers", "Orphaned Files (deleted apps)", "questionmark.folder", CategoryGroup::apps,     kept , off, quar},
};
// clang-format on

constexpr std::string_view kGroupTitles[] = {"System Junk", "Developer", "Personal Files", "Clutter",
                                             "Cloud", "Security", "Apps"};

}  // namespace

const std::array<CleanCategory, kCategoryCount>& allCategories() {
  static const auto all = [] {
    std::array<CleanCategory, kCategoryCount> a{};
    for (int i = 0; i < kCategoryCount; ++i) a[static_cast<size_t>(i)] = static_cast<CleanCategory>(i);
    return a;
  }();
  return all;
}

std::string_view rawValue(CleanCategory c) { return kCategories[position(c)].raw; }

bool existsOn(CleanCategory c, Layout layout) {
  if (layout == Layout::macos) return true;
  switch (c) {
    case CleanCategory::savedAppState:
    case CleanCategory::mailDownloads:
    case CleanCategory::iosBackups:
    case CleanCategory::iosUpdates:
    case CleanCategory::xcode:
    case CleanCategory::simulators:
      return false;
    default:
      return true;
  }
}
std::string_view displayName(CleanCategory c) { return kCategories[position(c)].displayName; }
std::string_view systemImage(CleanCategory c) { return kCategories[position(c)].systemImage; }
CategoryGroup group(CleanCategory c) { return kCategories[position(c)].group; }
bool isRegenerable(CleanCategory c) { return kCategories[position(c)].regenerable; }
bool selectedByDefault(CleanCategory c) { return kCategories[position(c)].selected; }
Disposal defaultDisposal(CleanCategory c) { return kCategories[position(c)].disposal; }

std::optional<CleanCategory> categoryFromRaw(std::string_view raw) {
  for (int i = 0; i < kCategoryCount; ++i)
    if (kCategories[i].raw == raw) return static_cast<CleanCategory>(i);
  return std::nullopt;
}

std::string_view label(Risk r) {
  switch (r) {
    case Risk::safe: return "Safe";
    case Risk::review: return "Review";
    case Risk::caution: return "Caution";
  }
  return "";
}

std::optional<Risk> riskFromRaw(int64_t raw) {
  if (raw < 0 || raw > 2) return std::nullopt;
  return static_cast<Risk>(raw);
}

std::string_view label(Severity s) {
  switch (s) {
    case Severity::info: return "Info";
    case Severity::low: return "Low";
    case Severity::medium: return "Medium";
    case Severity::high: return "High";
  }
  return "";
}

std::optional<Severity> severityFromRaw(int64_t raw) {
  if (raw < 0 || raw > 3) return std::nullopt;
  return static_cast<Severity>(raw);
}

std::string_view rawValue(Disposal d) {
  switch (d) {
    case Disposal::quarantine: return "quarantine";
    case Disposal::trash: return "trash";
    case Disposal::delete_: return "delete";
  }
  return "";
}

std::string_view label(Disposal d) {
  switch (d) {
    case Disposal::quarantine: return "Quarantine (undo)";
    case Disposal::trash: return "Move to Trash";
    case Disposal::delete_: return "Delete immediately";
  }
  return "";
}

std::optional<Disposal> disposalFromRaw(std::string_view raw) {
  for (Disposal d : {Disposal::quarantine, Disposal::trash, Disposal::delete_})
    if (rawValue(d) == raw) return d;
  return std::nullopt;
}

std::string_view rawValue(CategoryGroup g) { return kGroupTitles[static_cast<int>(g)]; }

const std::array<CategoryGroup, 7>& allGroups() {
  static const std::array<CategoryGroup, 7> all = {
      CategoryGroup::system, CategoryGroup::developer, CategoryGroup::personal, CategoryGroup::clutter,
      CategoryGroup::cloud,  CategoryGroup::security,  CategoryGroup::apps};
  return all;
}

std::optional<CategoryGroup> groupFromRaw(std::string_view raw) {
  for (auto g : allGroups())
    if (rawValue(g) == raw) return g;
  return std::nullopt;
}

std::string CommandSpec::display() const {
  std::string s = executable;
  for (const auto& a : arguments) s += " " + a;
  return s;
}

std::optional<std::string> ItemTarget::path() const {
  switch (kind) {
    case Kind::path:
    case Kind::adminPath: return pathValue;
    case Kind::command:
    case Kind::evict: return std::nullopt;
  }
  return std::nullopt;
}

int64_t CategoryResult::totalSize() const {
  int64_t sum = 0;
  for (const auto& i : items) {
    // A total past the 64-bit range is shown as the largest, never wrapped into a small one.
    if (__builtin_add_overflow(sum, i.countedSize(), &sum)) return INT64_MAX;
  }
  return sum;
}

// ---- JSON ----

Json dateToJson(Date d, DateForm form) {
  if (form == DateForm::iso8601) return Dates::iso8601(d);
  return Dates::referenceSeconds(d);
}

Date dateFromJson(const Json& j, DateForm form) {
  if (form == DateForm::iso8601) {
    if (!j.is_string()) throw DecodeError("Expected a date string");
    auto d = Dates::parseISO8601(j.get<std::string>());
    if (!d) throw DecodeError("Expected date string to be ISO8601-formatted.");
    return *d;
  }
  if (!j.is_number()) throw DecodeError("Expected a number for a date");
  return Dates::fromReferenceSeconds(j.get<double>());
}

Json toJson(const CommandSpec& c) { return Json{{"executable", c.executable}, {"arguments", c.arguments}}; }

CommandSpec commandSpecFromJson(const Json& j) {
  JsonDecode::object(j, "CommandSpec");
  return {JsonDecode::string(j, "executable"), JsonDecode::stringArray(j, "arguments")};
}

static std::string_view caseName(ItemTarget::Kind k) {
  switch (k) {
    case ItemTarget::Kind::path: return "path";
    case ItemTarget::Kind::command: return "command";
    case ItemTarget::Kind::adminPath: return "adminPath";
    case ItemTarget::Kind::evict: return "evict";
  }
  return "";
}

Json toJson(const ItemTarget& t) {
  Json payload = t.kind == ItemTarget::Kind::command ? Json{{"_0", toJson(t.command)}}
                                                     : Json{{"_0", t.pathValue}};
  return Json{{std::string(caseName(t.kind)), payload}};
}

ItemTarget itemTargetFromJson(const Json& j) {
  auto [name, payload] = JsonDecode::oneCase(j, {"path", "command", "adminPath", "evict"});
  if (name == "command") {
    auto it = payload->find("_0");
    if (it == payload->end()) throw DecodeError("No value for key _0");
    return ItemTarget::forCommand(commandSpecFromJson(*it));
  }
  std::string p = JsonDecode::string(*payload, "_0");
  if (name == "path") return ItemTarget::forPath(std::move(p));
  if (name == "adminPath") return ItemTarget::forAdminPath(std::move(p));
  return ItemTarget::forEvict(std::move(p));
}

CleanCategory categoryFromJson(const Json& j) {
  if (!j.is_string()) throw DecodeError("Expected a category string");
  auto c = categoryFromRaw(j.get<std::string>());
  if (!c) throw DecodeError("Cannot initialize CleanCategory from invalid String value " + j.get<std::string>());
  return *c;
}

Disposal disposalFromJson(const Json& j) {
  if (!j.is_string()) throw DecodeError("Expected a disposal string");
  auto d = disposalFromRaw(j.get<std::string>());
  if (!d) throw DecodeError("Cannot initialize Disposal from invalid String value " + j.get<std::string>());
  return *d;
}

Json toJson(const ScanItem& item, DateForm form) {
  Json j{{"id", item.id},
         {"title", item.title},
         {"target", toJson(item.target)},
         {"size", item.size},
         {"category", rawValue(item.category)},
         {"risk", static_cast<int>(item.risk)},
         {"reason", item.reason}};
  if (item.lastUsed) j["lastUsed"] = dateToJson(*item.lastUsed, form);
  return j;
}

ScanItem scanItemFromJson(const Json& j, DateForm form) {
  JsonDecode::object(j, "ScanItem");
  ScanItem item;
  item.id = JsonDecode::string(j, "id");
  item.title = JsonDecode::string(j, "title");
  if (!JsonDecode::has(j, "target")) throw DecodeError("No value for key target");
  item.target = itemTargetFromJson(j.at("target"));
  item.size = JsonDecode::int64(j, "size");
  if (!JsonDecode::has(j, "category")) throw DecodeError("No value for key category");
  item.category = categoryFromJson(j.at("category"));
  auto risk = riskFromRaw(JsonDecode::int64(j, "risk"));
  if (!risk) throw DecodeError("Cannot initialize Risk from invalid value");
  item.risk = *risk;
  item.reason = JsonDecode::string(j, "reason");
  if (JsonDecode::has(j, "lastUsed")) item.lastUsed = dateFromJson(j.at("lastUsed"), form);
  return item;
}

Json toJson(const CategoryResult& r, DateForm form) {
  Json items = Json::array();
  for (const auto& i : r.items) items.push_back(toJson(i, form));
  Json j{{"category", rawValue(r.category)}, {"items", items}};
  if (r.error) j["error"] = *r.error;
  return j;
}

CategoryResult categoryResultFromJson(const Json& j, DateForm form) {
  JsonDecode::object(j, "CategoryResult");
  CategoryResult r;
  if (!JsonDecode::has(j, "category")) throw DecodeError("No value for key category");
  r.category = categoryFromJson(j.at("category"));
  if (!JsonDecode::has(j, "items") || !j.at("items").is_array()) throw DecodeError("Expected an array for items");
  for (const auto& e : j.at("items")) r.items.push_back(scanItemFromJson(e, form));
  r.error = JsonDecode::optString(j, "error");
  return r;
}

}  // namespace kestrel
