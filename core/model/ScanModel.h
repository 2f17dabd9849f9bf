// Scan data model: categories and their attributes, risks, disposals, items, targets and results.
#pragma once

#include "core/base/Dates.h"
#include "core/base/Json.h"
#include "core/system/Paths.h"

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kestrel {

enum class Risk : int { safe = 0, review = 1, caution = 2 };
enum class Severity : int { info = 0, low = 1, medium = 2, high = 3 };
enum class Disposal { quarantine, trash, delete_ };
enum class CategoryGroup { system, developer, personal, clutter, cloud, security, apps };

enum class CleanCategory : int {
  userCaches, logs, crashReports, trash, savedAppState, mailDownloads,
  iosBackups, iosUpdates, oldDownloads, installers, largeOldFiles,
  xcode, simulators, projectArtifacts, packageCaches, docker,
  duplicates, similarPhotos, cloudLocalCopies, securityThreats,
  appBundle, appLeftovers, orphanedLeftovers,
};
inline constexpr int kCategoryCount = 23;

// Every category in display order (position 0 to 22).
const std::array<CleanCategory, kCategoryCount>& allCategories();
inline int position(CleanCategory c) { return static_cast<int>(c); }

std::string_view rawValue(CleanCategory c);
// Whether the category can hold anything on a system of `layout` (iOS backups or Xcode data
// cannot on Linux).
bool existsOn(CleanCategory c, Layout layout);
std::string_view displayName(CleanCategory c);
std::string_view systemImage(CleanCategory c);
CategoryGroup group(CleanCategory c);
bool isRegenerable(CleanCategory c);
bool selectedByDefault(CleanCategory c);
Disposal defaultDisposal(CleanCategory c);
// Exact, case-sensitive raw text; nothing for anything else.
std::optional<CleanCategory> categoryFromRaw(std::string_view raw);

std::string_view label(Risk r);
std::optional<Risk> riskFromRaw(int64_t raw);
inline bool operator<(Risk a, Risk b) { return static_cast<int>(a) < static_cast<int>(b); }
inline bool operator<=(Risk a, Risk b) { return static_cast<int>(a) <= static_cast<int>(b); }
inline bool operator>(Risk a, Risk b) { return static_cast<int>(a) > static_cast<int>(b); }
inline bool operator>=(Risk a, Risk b) { return static_cast<int>(a) >= static_cast<int>(b); }

std::string_view label(Severity s);
std::optional<Severity> severityFromRaw(int64_t raw);

std::string_view rawValue(Disposal d);
std::string_view label(Disposal d);
std::optional<Disposal> disposalFromRaw(std::string_view raw);

std::string_view rawValue(CategoryGroup g);  // also the group's title
std::optional<CategoryGroup> groupFromRaw(std::string_view raw);
const std::array<CategoryGroup, 7>& allGroups();

struct CommandSpec {
  std::string executable;
  std::vector<std::string> arguments;

  // The executable and its arguments joined with single blanks.
  std::string display() const;
  bool operator==(const CommandSpec&) const = default;
};

// What cleaning an item acts on: a path as the user, a command, a path with administrator
// rights, or the local copy of a cloud file (evicted, not removed).
struct ItemTarget {
  enum class Kind { path, command, adminPath, evict };
  Kind kind = Kind::path;
  std::string pathValue;  // path, adminPath, evict
  CommandSpec command;    // command

  static ItemTarget forPath(std::string p) { return {Kind::path, std::move(p), {}}; }
  static ItemTarget forCommand(CommandSpec c) { return {Kind::command, {}, std::move(c)}; }
  static ItemTarget forAdminPath(std::string p) { return {Kind::adminPath, std::move(p), {}}; }
  static ItemTarget forEvict(std::string p) { return {Kind::evict, std::move(p), {}}; }

  // The removable path: path and adminPath only (an eviction removes nothing).
  std::optional<std::string> path() const;
  bool operator==(const ItemTarget&) const = default;
};

struct ScanItem {
  // The size of an item whose only figure came from another program and cannot be true (negative,
  // or more than the volume holding it): shown as unknown, never summed.
  static constexpr int64_t kUnknownSize = -1;

  std::string id;
  std::string title;
  ItemTarget target;
  int64_t size = 0;  // bytes, or kUnknownSize
  CleanCategory category = CleanCategory::userCaches;
  Risk risk = Risk::safe;
  std::string reason;
  std::optional<Date> lastUsed;
  // Where the scan really found the item when that differs from the target's path (its folder is
  // reached through a link the safety policy lets a root follow). The cleaner acts through the link
  // only when the link still leads there. Not part of the JSON form.
  std::optional<std::string> realPath = std::nullopt;

  std::optional<std::string> path() const { return target.path(); }
  bool sizeKnown() const { return size >= 0; }
  // The size to add to totals, "Freed" lines and the audit log: 0 when unknown.
  int64_t countedSize() const { return sizeKnown() ? size : 0; }
  bool operator==(const ScanItem&) const = default;
};

struct CategoryResult {
  CategoryResult() = default;
  CategoryResult(CleanCategory c, std::vector<ScanItem> found = {}, std::optional<std::string> why = std::nullopt)
      : category(c), items(std::move(found)), error(std::move(why)) {}

  CleanCategory category = CleanCategory::userCaches;
  std::vector<ScanItem> items;
  std::optional<std::string> error;
  // Items found but not offered, counted by why: "protected" (the safety policy), "in use".
  // Not part of the JSON form.
  std::map<std::string, int64_t> heldBack;

  // Sum of the known sizes of the items; a sum past the 64-bit range is INT64_MAX, never a
  // wrapped value.
  int64_t totalSize() const;
  bool operator==(const CategoryResult&) const = default;
};

// The two JSON forms of dates: the stores' ISO 8601 text, or the plain encoder's seconds since 2001.
enum class DateForm { iso8601, referenceSeconds };

Json toJson(const CommandSpec& c);
Json toJson(const ItemTarget& t);
Json toJson(const ScanItem& item, DateForm form);
Json toJson(const CategoryResult& r, DateForm form);
Json dateToJson(Date d, DateForm form);
// Decoders throw DecodeError.
CommandSpec commandSpecFromJson(const Json& j);
ItemTarget itemTargetFromJson(const Json& j);
ScanItem scanItemFromJson(const Json& j, DateForm form);
CategoryResult categoryResultFromJson(const Json& j, DateForm form);
Date dateFromJson(const Json& j, DateForm form);
CleanCategory categoryFromJson(const Json& j);
Disposal disposalFromJson(const Json& j);

}  // namespace kestrel
