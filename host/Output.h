// What every kestrel command shares in front of people and scripts: the terminal and its colour,
// the progress line, the question before removing, the item texts and the JSON envelope.
#pragma once

#include <chrono>
#include <filesystem>
#include <istream>
#include <mutex>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>

#include "core/base/Json.h"
#include "core/model/AppConfig.h"
#include "core/model/ScanModel.h"

namespace kestrel::host {

// Which standard streams are terminals, and whether NO_COLOR asks for plain text.
struct Terminal {
  bool in = false, out = false, err = false;
  bool noColor = false;  // NO_COLOR is set and not empty
  static Terminal detect();
};

// "--color auto|always|never": an explicit choice beats NO_COLOR; "auto" colours only a terminal.
enum class ColorMode { automatic, always, never };
bool colorOn(ColorMode mode, const Terminal& terminal);

enum class Color { dim, bold, red, yellow, green };
// `text` wrapped in the colour's escape codes when `on`, else as it is.
std::string paint(std::string_view text, Color color, bool on);

// One line of progress on a terminal's standard error, rewritten in place at most ten times a
// second and erased when done (with blanks, never an escape code); nothing at all when `enabled`
// is false. Thread-safe.
class ProgressLine {
 public:
  ProgressLine(std::ostream& err, bool enabled) : err_(err), enabled_(enabled) {}
  ~ProgressLine() { done(); }
  ProgressLine(const ProgressLine&) = delete;
  ProgressLine& operator=(const ProgressLine&) = delete;

  void show(const std::string& text);
  void done();

 private:
  std::ostream& err_;
  bool enabled_;
  size_t shown_ = 0;  // characters on the line now
  std::optional<std::chrono::steady_clock::time_point> last_;
  std::mutex lock_;
};

// Asks `question` followed by " [y/N] " on `out` and reads one line from `in`: true only for an
// answer starting with y or Y.
bool confirm(std::ostream& out, std::istream& in, const std::string& question);

// `path` with the home folder shown as "~".
std::string tilde(const std::string& path, const std::filesystem::path& home);
// How long ago `then` was, roughly: "just now", "5 minutes ago", "3 months ago", "2 years ago".
std::string ago(Date then, Date now);
// "safe", "review", "caution".
std::string_view riskName(Risk r);
std::optional<Risk> riskFromName(std::string_view name);

// What a clean does with an item: `name` for scripts ("quarantine", "trash", "delete",
// "command", "evict"), `text` for people ("to quarantine, restorable for 7 days").
struct Fate {
  std::string name;
  std::string text;
};
Fate fateOf(const ScanItem& item, const AppConfig& config);

// The item as every JSON output shows it: names, not numbers; dates as ISO 8601 UTC; the path as
// plain text (a name that is not UTF-8 as the JSON writer escapes it).
Json itemJson(const ScanItem& item, const Fate& fate);

// The one JSON shape: `body` (an object) with "schema": "kestrel.<command>/1" and an "items"
// array (empty when the body has none).
Json envelope(std::string_view command, Json body);

// `text` cut or padded with blanks to `width` characters; right-aligned with `right`.
std::string fit(std::string_view text, size_t width, bool right = false);

}  // namespace kestrel::host
