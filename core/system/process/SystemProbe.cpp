// System probe: the parsers of every source's text and the readers of sysfs and /proc.
#include "core/system/process/SystemProbe.h"

#include "core/base/UniqueFd.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <cmath>

namespace kestrel {
namespace {

std::string_view trim(std::string_view s) {
  const auto blank = [](char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; };
  while (!s.empty() && blank(s.front())) s.remove_prefix(1);
  while (!s.empty() && blank(s.back())) s.remove_suffix(1);
  return s;
}

bool isDigit(char c) { return c >= '0' && c <= '9'; }

std::optional<int64_t> parseInteger(std::string_view s) {
  int64_t v = 0;
  const auto [end, ec] = std::from_chars(s.data(), s.data() + s.size(), v);
  if (ec != std::errc() || end != s.data() + s.size()) return std::nullopt;
  return v;
}

// Up to `maxBytes` of a kernel file (whose size, 0 or 4096, says nothing about its content);
// nothing when it cannot be opened. Never follows a final link or blocks on a FIFO.
std::optional<std::string> readSmall(const std::filesystem::path& p, size_t maxBytes) {
  UniqueFd fd(::open(p.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK));
  if (!fd) return std::nullopt;
  struct stat st {};
  if (::fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode)) return std::nullopt;
  std::string out(maxBytes, '\0');
  size_t got = 0;
  while (got < out.size()) {
    const ssize_t n = ::read(fd.get(), out.data() + got, out.size() - got);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    got += static_cast<size_t>(n);
  }
  out.resize(got);
  return out;
}

// The first line of a sysfs attribute, trimmed; empty when it cannot be read.
std::string firstLine(const std::filesystem::path& p) {
  const auto text = readSmall(p, 4096);
  if (!text) return {};
  return std::string(trim(std::string_view(*text).substr(0, text->find('\n'))));
}

std::vector<std::string_view> lines(std::string_view text) {
  std::vector<std::string_view> out;
  while (!text.empty()) {
    const size_t nl = text.find('\n');
    out.push_back(text.substr(0, nl));
    if (nl == std::string_view::npos) break;
    text.remove_prefix(nl + 1);
  }
  return out;
}

// Undoes systemd's unit-name escaping ("\x2d" for "-").
std::string unescapeUnitName(std::string_view s) {
  std::string out;
  for (size_t i = 0; i < s.size(); ++i) {
    if (s[i] == '\\' && i + 3 < s.size() && s[i + 1] == 'x' && std::isxdigit(static_cast<unsigned char>(s[i + 2])) &&
        std::isxdigit(static_cast<unsigned char>(s[i + 3]))) {
      out += static_cast<char>(std::stoi(std::string(s.substr(i + 2, 2)), nullptr, 16));
      i += 3;
    } else {
      out += s[i];
    }
  }
  return out;
}

// "app[-<launcher>]-<AppID>-<random>.scope" or "app[-<launcher>]-<AppID>[@<random>].service".
std::optional<std::string> appIDFromUnit(std::string_view unit) {
  if (unit.substr(0, 4) != "app-") return std::nullopt;
  unit.remove_prefix(4);
  std::vector<std::string_view> parts;
  if (unit.size() > 6 && unit.substr(unit.size() - 6) == ".scope") {
    unit.remove_suffix(6);
    // The random part is mandatory for scopes; escaped dashes never split the id.
    const size_t last = unit.rfind('-');
    if (last == std::string_view::npos) return std::nullopt;
    unit = unit.substr(0, last);
  } else if (unit.size() > 8 && unit.substr(unit.size() - 8) == ".service") {
    unit.remove_suffix(8);
    unit = unit.substr(0, unit.find('@'));
  } else {
    return std::nullopt;
  }
  // What is left is "<launcher>-<AppID>" or "<AppID>".
  const size_t dash = unit.find('-');
  if (dash != std::string_view::npos) unit.remove_prefix(dash + 1);
  if (unit.empty()) return std::nullopt;
  return unescapeUnitName(unit);
}

}  // namespace

namespace SystemProbe {

SystemState current(const Paths& paths, const Runner& run) { return platform::probeSystem(paths, run); }

PowerState parsePmset(std::string_view text) {
  PowerState out;
  if (text.find("'AC Power'") != std::string_view::npos) out.onACPower = true;
  else if (text.find("'Battery Power'") != std::string_view::npos) out.onACPower = false;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '%' || i == 0 || !isDigit(text[i - 1])) continue;
    size_t start = i;
    while (start > 0 && isDigit(text[start - 1]) && i - start < 3) --start;
    out.batteryPercent = parseInteger(text.substr(start, i - start));
    break;
  }
  return out;
}

std::optional<double> parseIdle(std::string_view text) {
  for (auto line : lines(text)) {
    if (line.find("HIDIdleTime") == std::string_view::npos) continue;
    const size_t eq = line.find('=');
    if (eq == std::string_view::npos) return std::nullopt;
    const auto value = trim(line.substr(eq + 1));
    double ns = 0;
    const auto [end, ec] = std::from_chars(value.data(), value.data() + value.size(), ns);
    if (ec != std::errc() || end != value.data() + value.size() || !std::isfinite(ns)) return std::nullopt;
    return ns / 1e9;
  }
  return std::nullopt;
}

std::set<std::string> parseRunningApps(std::string_view text) {
  std::set<std::string> out;
  while (true) {
    const size_t comma = text.find(',');
    const auto piece = trim(text.substr(0, comma));
    if (!piece.empty() && piece != "missing value") out.emplace(piece);
    if (comma == std::string_view::npos) break;
    text.remove_prefix(comma + 1);
  }
  return out;
}

std::set<std::string> runningApps(const Runner& run) {
  const auto r = run("osascript",
                     {"-e", "tell application \"System Events\" to get bundle identifier of every application process"},
                     10);
  if (!r.ok()) return {};
  return parseRunningApps(r.stdout);
}

PowerState powerFromSupplies(const std::vector<PowerSupply>& supplies) {
  PowerState out;
  bool mainsOnline = false, discharging = false, anyBattery = false;
  int64_t capacitySum = 0, capacities = 0;
  for (const auto& s : supplies) {
    if (s.type == "Mains" && s.online == "1") mainsOnline = true;
    // A wireless mouse's or headset's battery says nothing about the machine's power.
    if (s.type != "Battery" || s.scope == "Device") continue;
    anyBattery = true;
    if (s.status == "Discharging") discharging = true;
    if (auto c = parseInteger(s.capacity); c && *c >= 0 && *c <= 100) {
      capacitySum += *c;
      ++capacities;
    }
  }
  if (mainsOnline) out.onACPower = true;
  else if (discharging) out.onACPower = false;
  else if (anyBattery) out.onACPower = true;  // charging, full or held at a limit: plugged in
  if (capacities > 0) out.batteryPercent = (capacitySum + capacities / 2) / capacities;
  return out;
}

std::vector<PowerSupply> readPowerSupplies(const std::filesystem::path& root) {
  std::vector<PowerSupply> out;
  std::error_code ec;
  for (std::filesystem::directory_iterator it(root, ec), end; !ec && it != end; it.increment(ec)) {
    const auto& p = it->path();
    out.push_back({firstLine(p / "type"), firstLine(p / "online"), firstLine(p / "status"), firstLine(p / "capacity"),
                   firstLine(p / "scope")});
  }
  return out;
}

std::optional<double> parseMutterIdle(std::string_view text) {
  const size_t at = text.find("uint64 ");
  if (at == std::string_view::npos) return std::nullopt;
  auto rest = text.substr(at + 7);
  size_t n = 0;
  while (n < rest.size() && isDigit(rest[n])) ++n;
  const auto ms = parseInteger(rest.substr(0, n));
  if (!ms) return std::nullopt;
  return static_cast<double>(*ms) / 1000.0;
}

std::optional<double> parseLogindIdle(std::string_view text, int64_t nowUnixMicroseconds) {
  std::optional<bool> hint;
  std::optional<int64_t> since;
  for (auto line : lines(text)) {
    line = trim(line);
    if (line == "IdleHint=yes") hint = true;
    else if (line == "IdleHint=no") hint = false;
    else if (line.substr(0, 14) == "IdleSinceHint=") since = parseInteger(line.substr(14));
  }
  if (!hint || !since || *since <= 0) return std::nullopt;  // the desktop never reported
  if (!*hint) return 0.0;
  return std::max(0.0, static_cast<double>(nowUnixMicroseconds - *since) / 1e6);
}

std::optional<std::string> logindDisplaySession(const std::filesystem::path& userStateFile) {
  const auto text = readSmall(userStateFile, 64 * 1024);
  if (!text) return std::nullopt;
  for (auto line : lines(*text)) {
    if (line.substr(0, 8) == "DISPLAY=") return std::string(trim(line.substr(8)));
  }
  return std::string();
}

std::optional<std::string> appIDFromCgroup(std::string_view text) {
  for (auto line : lines(text)) {
    // "<id>:<controllers>:<path>"; the path's innermost unit names the process's scope.
    const size_t first = line.find(':');
    if (first == std::string_view::npos) continue;
    const size_t second = line.find(':', first + 1);
    if (second == std::string_view::npos) continue;
    auto path = trim(line.substr(second + 1));
    const size_t slash = path.rfind('/');
    if (auto id = appIDFromUnit(slash == std::string_view::npos ? path : path.substr(slash + 1))) return id;
  }
  return std::nullopt;
}

std::set<std::string> linuxRunningApps(const std::filesystem::path& procRoot, uid_t uid) {
  std::set<std::string> out;
  DIR* dir = ::opendir(procRoot.c_str());
  if (!dir) return out;
  while (const dirent* e = ::readdir(dir)) {
    const std::string_view name = e->d_name;
    if (name.empty() || !std::all_of(name.begin(), name.end(), isDigit)) continue;
    const auto pidDir = procRoot / e->d_name;
    struct stat st {};
    if (::stat(pidDir.c_str(), &st) != 0 || st.st_uid != uid) continue;
    if (const auto cgroup = readSmall(pidDir / "cgroup", 64 * 1024)) {
      if (auto id = appIDFromCgroup(*cgroup)) out.insert(*id);
    }
    char target[4096];
    const ssize_t n = ::readlink((pidDir / "exe").c_str(), target, sizeof target - 1);
    if (n <= 0) continue;  // kernel threads and other users' processes have none we may read
    std::string_view exe(target, static_cast<size_t>(n));
    constexpr std::string_view kDeleted = " (deleted)";
    if (exe.size() > kDeleted.size() && exe.substr(exe.size() - kDeleted.size()) == kDeleted)
      exe.remove_suffix(kDeleted.size());
    const size_t slash = exe.rfind('/');
    const auto base = slash == std::string_view::npos ? exe : exe.substr(slash + 1);
    if (!base.empty()) out.emplace(base);
  }
  ::closedir(dir);
  return out;
}

}  // namespace SystemProbe
}  // namespace kestrel
