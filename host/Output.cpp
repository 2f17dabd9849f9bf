// The pieces every kestrel command shares: terminal, colour, progress, the question, item texts and
// the JSON envelope.
#include "host/Output.h"

#include <unistd.h>

#include <cstdlib>

#include "core/base/Text.h"

namespace kestrel::host {

Terminal Terminal::detect() {
  Terminal t;
  t.in = ::isatty(0) == 1;
  t.out = ::isatty(1) == 1;
  t.err = ::isatty(2) == 1;
  const char* noColor = std::getenv("NO_COLOR");
  t.noColor = noColor && *noColor;
  return t;
}

bool colorOn(ColorMode mode, const Terminal& terminal) {
  switch (mode) {
    case ColorMode::always: return true;
    case ColorMode::never: return false;
    case ColorMode::automatic: return terminal.out && !terminal.noColor;
  }
  return false;
}

std::string paint(std::string_view text, Color color, bool on) {
  if (!on) return std::string(text);
  const char* code = "";
  switch (color) {
    case Color::dim: code = "\033[2m"; break;
    case Color::bold: code = "\033[1m"; break;
    case Color::red: code = "\033[31m"; break;
    case Color::yellow: code = "\033[33m"; break;
    case Color::green: code = "\033[32m"; break;
  }
  return code + std::string(text) + "\033[0m";
}

void ProgressLine::show(const std::string& text) {
  if (!enabled_) return;
  std::lock_guard guard(lock_);
  const auto now = std::chrono::steady_clock::now();
  // About ten updates a second: a terminal redrawn faster only flickers.
  if (last_ && now - *last_ < std::chrono::milliseconds(100)) return;
  last_ = now;
  const std::string line = Utf8::displayText(Utf8::prefix(text, 78));
  const size_t width = Utf8::length(line);
  // Blanks over what is left of a longer line before.
  err_ << '\r' << line << std::string(shown_ > width ? shown_ - width : 0, ' ');
  err_.flush();
  shown_ = width;
}

void ProgressLine::done() {
  std::lock_guard guard(lock_);
  if (shown_ == 0) return;
  err_ << '\r' << std::string(shown_, ' ') << '\r';
  err_.flush();
  shown_ = 0;
}

bool confirm(std::ostream& out, std::istream& in, const std::string& question) {
  out << question << " [y/N] ";
  out.flush();
  std::string answer;
  if (!std::getline(in, answer)) return false;
  return !answer.empty() && (answer[0] == 'y' || answer[0] == 'Y');
}

std::string tilde(const std::string& path, const std::filesystem::path& home) {
  const std::string h = home.string();
  if (path == h) return "~";
  if (path.size() > h.size() && path.compare(0, h.size(), h) == 0 && path[h.size()] == '/')
    return "~" + path.substr(h.size());
  return path;
}

std::string ago(Date then, Date now) {
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(now - then).count();
  const auto say = [](int64_t n, const char* unit) {
    return std::to_string(n) + " " + unit + (n == 1 ? "" : "s") + " ago";
  };
  if (seconds < 60) return "just now";
  if (seconds < 3600) return say(seconds / 60, "minute");
  if (seconds < 86400) return say(seconds / 3600, "hour");
  if (seconds < 86400 * 30) return say(seconds / 86400, "day");
  if (seconds < 86400 * 365) return say(seconds / (86400 * 30), "month");
  return say(seconds / (86400 * 365), "year");
}

std::string_view riskName(Risk r) {
  switch (r) {
    case Risk::safe: return "safe";
    case Risk::review: return "review";
    case Risk::caution: return "caution";
  }
  return "";
}

std::optional<Risk> riskFromName(std::string_view name) {
  for (const Risk r : {Risk::safe, Risk::review, Risk::caution})
    if (riskName(r) == name) return r;
  return std::nullopt;
}

Fate fateOf(const ScanItem& item, const AppConfig& config) {
  switch (item.target.kind) {
    case ItemTarget::Kind::command: return {"command", "runs " + item.target.command.display()};
    case ItemTarget::Kind::evict: return {"evict", "local copy removed, kept in the cloud"};
    case ItemTarget::Kind::adminPath: return {"delete", "deleted for good (needs administrator rights)"};
    case ItemTarget::Kind::path: break;
  }
  switch (config.disposal(item.category)) {
    case Disposal::quarantine:
      return {"quarantine",
              "to quarantine, restorable for " + std::to_string(config.quarantineRetentionDays) + " days"};
    case Disposal::trash: return {"trash", "to the Trash"};
    case Disposal::delete_: return {"delete", "deleted for good"};
  }
  return {"delete", "deleted for good"};
}

Json itemJson(const ScanItem& item, const Fate& fate) {
  Json j{{"id", item.id},
         {"title", Utf8::displayText(item.title)},
         {"category", std::string(rawValue(item.category))},
         {"size", item.sizeKnown() ? Json(item.size) : Json(nullptr)},
         {"risk", std::string(riskName(item.risk))},
         {"fate", fate.name},
         {"reason", Utf8::displayText(item.reason)}};
  const auto path = item.path();
  j["path"] = path ? Json(*path) : Json(nullptr);
  j["lastUsed"] = item.lastUsed ? Json(Dates::iso8601(*item.lastUsed)) : Json(nullptr);
  return j;
}

Json envelope(std::string_view command, Json body) {
  body["schema"] = "kestrel." + std::string(command) + "/1";
  if (!body.contains("items")) body["items"] = Json::array();
  return body;
}

std::string fit(std::string_view text, size_t width, bool right) {
  const std::string cut(Utf8::prefix(text, width));
  const std::string pad(width - Utf8::length(cut), ' ');
  return right ? pad + cut : cut + pad;
}

}  // namespace kestrel::host
