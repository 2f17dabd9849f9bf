// The shredder's records: its settings, one action taken, one file held back, and history totals.
#pragma once

#include "core/base/Dates.h"
#include "core/base/Json.h"

#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace kestrel {

struct ShredderSettings {
  bool approved = false;  // the user has approved the shredder (it may act)
  bool enabled = false;   // the shredder is switched on
  std::vector<std::string> folders{"~/Downloads", "~/Desktop"};  // "~" leads to the home folder
  bool dedupeDownloads = true;
  int64_t shredInstallersAfterDays = 14;  // 0 or less: off
  int64_t emptyTrashAfterDays = 30;       // 0 or less: off
  int64_t tidyScreenshotsAfterDays = 0;   // 0 or less: off
  int64_t maxAutoSizeMB = 4096;           // largest file disposed of without the user (MiB)
  bool quarantineFirst = true;
  bool notifyEachEvent = false;
  std::vector<std::string> skipExtensions{"mp4", "mov", "m4v", "html", "htm", "psd", "ai", "sketch",
                                          "fig", "docx", "xlsx", "pptx", "key", "pages", "numbers", "indd"};
  bool reviewSkipped = true;
  bool keepNewest = false;
  int64_t settleSeconds = 120;  // never less than 4 in effect
  std::vector<std::string> ignoredPaths;

  // True when the file's lower-cased extension is on the skip list (no extension: never).
  bool isSkipped(const std::filesystem::path& file) const;
  // One display line per rule that is on: duplicates, installers, Trash, screenshots.
  std::vector<std::string> ruleSummary() const;
  // The size cap in bytes (saturating).
  int64_t maxAutoBytes() const;

  bool operator==(const ShredderSettings&) const = default;
};

Json toJson(const ShredderSettings& s);
// Strict on purpose: every one of the fifteen keys must be present with its type, else
// DecodeError (the store then uses the defaults as a whole, never a mix).
ShredderSettings shredderSettingsFromJson(const Json& j);

// The rule names events and candidates carry.
namespace ShredRule {
inline constexpr std::string_view duplicate = "Duplicate download";
inline constexpr std::string_view installer = "Old installer";
inline constexpr std::string_view screenshot = "Old screenshot";
inline constexpr std::string_view trash = "Trash";
}  // namespace ShredRule

struct ShredEvent {
  std::string id;  // upper-case UUID
  Date date{};     // whole seconds when persisted
  std::string path;
  std::string rule;
  std::string reason;
  int64_t size = 0;
  bool restorable = false;
  std::optional<std::string> quarantineSession;
  std::optional<std::string> twinPath;

  std::string name() const;  // the last component of `path`
  bool operator==(const ShredEvent&) const = default;
};

Json toJson(const ShredEvent& e);
ShredEvent shredEventFromJson(const Json& j);

struct ShredCandidate {
  std::string path;
  std::string twinPath;
  int64_t size = 0;
  std::string rule;
  std::string reason;
  Date detectedAt{};

  bool operator==(const ShredCandidate&) const = default;
};

Json toJson(const ShredCandidate& c);
ShredCandidate shredCandidateFromJson(const Json& j);

struct ShredStats {
  int64_t count = 0;
  int64_t bytes = 0;
  std::map<std::string, int64_t> byRule;
  std::optional<std::string> busiestDay;  // "yyyy-MM-dd", local calendar

  bool operator==(const ShredStats&) const = default;
};

}  // namespace kestrel
