// Background items: the launchd, systemd, autostart, cron and browser readers, the findings and
// the baseline comparison.
#include "core/schedule/Persistence.h"

#include "core/store/JSONStore.h"
#include "core/system/fs/QuietRead.h"

#include <plist/plist.h>
#include <sys/stat.h>

#include <algorithm>
#include <map>
#include <memory>
#include <set>

namespace kestrel {
namespace {

namespace fs = std::filesystem;
constexpr size_t kMaxDefinitionBytes = 1024 * 1024;

std::string_view trim(std::string_view s) {
  while (!s.empty() && (s.front() == ' ' || s.front() == '\t' || s.front() == '\r')) s.remove_prefix(1);
  while (!s.empty() && (s.back() == ' ' || s.back() == '\t' || s.back() == '\r' || s.back() == '\n')) s.remove_suffix(1);
  return s;
}

std::optional<std::string> readText(const fs::path& p) {
  // Follows a final link on purpose: unit files and autostart entries are often links into a package.
  std::error_code ec;
  const fs::path real = fs::canonical(p, ec);
  if (ec) return std::nullopt;
  const auto bytes = platform::readFileQuietly(real, kMaxDefinitionBytes);
  if (!bytes) return std::nullopt;
  return std::string(bytes->begin(), bytes->end());
}

// The entries of `folder` whose names end with `suffix`, sorted; none when it cannot be read.
std::vector<fs::path> filesIn(const fs::path& folder, std::string_view suffix) {
  std::vector<fs::path> out;
  std::error_code ec;
  for (fs::directory_iterator it(folder, ec), end; !ec && it != end; it.increment(ec)) {
    const std::string name = it->path().filename().string();
    if (name.size() > suffix.size() && name.compare(name.size() - suffix.size(), suffix.size(), suffix) == 0)
      out.push_back(it->path());
  }
  std::sort(out.begin(), out.end());
  return out;
}

std::vector<fs::path> subfolders(const fs::path& folder) {
  std::vector<fs::path> out;
  std::error_code ec;
  for (fs::directory_iterator it(folder, ec), end; !ec && it != end; it.increment(ec)) {
    std::error_code typeError;
    if (it->is_directory(typeError)) out.push_back(it->path());
  }
  std::sort(out.begin(), out.end());
  return out;
}

// "key=value" lines of one "[section]" of an INI-style file (systemd units, desktop entries);
// the first value of a key wins, as the first ExecStart is the one that starts.
std::map<std::string, std::string> section(std::string_view text, std::string_view name) {
  std::map<std::string, std::string> out;
  bool inside = false;
  while (!text.empty()) {
    const size_t nl = text.find('\n');
    const auto line = trim(text.substr(0, nl));
    text = nl == std::string_view::npos ? std::string_view{} : text.substr(nl + 1);
    if (line.empty() || line[0] == '#' || line[0] == ';') continue;
    if (line[0] == '[') {
      inside = line == "[" + std::string(name) + "]";
      continue;
    }
    const size_t eq = line.find('=');
    if (!inside || eq == std::string_view::npos) continue;
    out.emplace(std::string(trim(line.substr(0, eq))), std::string(trim(line.substr(eq + 1))));
  }
  return out;
}

std::string value(const std::map<std::string, std::string>& m, const std::string& key) {
  const auto it = m.find(key);
  return it == m.end() ? std::string() : it->second;
}

PersistenceItem makeItem(PersistenceKind kind, const fs::path& file, std::string label, std::vector<std::string> words) {
  PersistenceItem item;
  item.kind = kind;
  item.path = file.string();
  item.id = std::string(rawValue(kind)) + ":" + item.path;
  item.label = label.empty() ? file.filename().string() : std::move(label);
  if (!words.empty()) {
    item.program = words.front();
    item.arguments.assign(words.begin() + 1, words.end());
  }
  return item;
}

void systemdUnits(const fs::path& folder, PersistenceKind kind, std::vector<PersistenceItem>& out) {
  // The units defined here, then those enabled here from elsewhere (links in "<target>.wants/",
  // such as a package's unit in /usr/lib enabled for default.target), each unit once.
  std::vector<fs::path> files = filesIn(folder, ".service");
  std::set<std::string> seen;
  for (const auto& f : files) seen.insert(f.filename().string());
  for (const auto& wants : subfolders(folder)) {
    const std::string name = wants.filename().string();
    if (!name.ends_with(".wants") && !name.ends_with(".requires")) continue;
    for (const auto& f : filesIn(wants, ".service"))
      if (seen.insert(f.filename().string()).second) files.push_back(f);
  }
  for (const auto& file : files) {
    std::error_code ec;
    // A unit linked to /dev/null is masked: it cannot start.
    if (!fs::is_regular_file(file, ec)) continue;
    const auto text = readText(file);
    if (!text) continue;
    const auto unit = section(*text, "Unit");
    const auto service = section(*text, "Service");
    out.push_back(makeItem(kind, file, value(unit, "Description"),
                           PersistenceInspector::commandWords(value(service, "ExecStart"))));
  }
}

void autostartEntries(const fs::path& userFolder, const fs::path& systemFolder, std::vector<PersistenceItem>& out) {
  std::set<std::string> userNames;
  for (const bool isUser : {true, false}) {
    for (const auto& file : filesIn(isUser ? userFolder : systemFolder, ".desktop")) {
      const std::string name = file.filename().string();
      // The user's entry of the same name replaces the system's (and "Hidden=true" deletes it).
      if (isUser) userNames.insert(name);
      else if (userNames.count(name)) continue;
      const auto text = readText(file);
      if (!text) continue;
      const auto entry = section(*text, "Desktop Entry");
      if (value(entry, "Hidden") == "true" || value(entry, "X-GNOME-Autostart-enabled") == "false") continue;
      out.push_back(makeItem(PersistenceKind::autostartEntry, file, value(entry, "Name"),
                             PersistenceInspector::commandWords(value(entry, "Exec"))));
    }
  }
}

struct PlistFree {
  void operator()(void* node) const { plist_free(static_cast<plist_t>(node)); }
};
using PlistPtr = std::unique_ptr<void, PlistFree>;

std::optional<std::string> plistString(plist_t node) {
  if (!node || plist_get_node_type(node) != PLIST_STRING) return std::nullopt;
  uint64_t length = 0;
  const char* v = plist_get_string_ptr(node, &length);
  if (!v) return std::nullopt;
  return std::string(v, length);
}

void launchdJobs(const fs::path& folder, PersistenceKind kind, std::vector<PersistenceItem>& out) {
  for (const auto& file : filesIn(folder, ".plist")) {
    const auto text = readText(file);
    if (!text || text->empty() || text->size() > UINT32_MAX) continue;
    plist_t parsed = nullptr;
    const auto length = static_cast<uint32_t>(text->size());
    if (text->compare(0, 8, "bplist00") == 0) plist_from_bin(text->data(), length, &parsed);
    else plist_from_xml(text->data(), length, &parsed);
    const PlistPtr root(parsed);
    if (!root || plist_get_node_type(parsed) != PLIST_DICT) continue;
    std::vector<std::string> words;
    if (auto program = plistString(plist_dict_get_item(parsed, "Program"))) words.push_back(*program);
    if (plist_t args = plist_dict_get_item(parsed, "ProgramArguments");
        args && plist_get_node_type(args) == PLIST_ARRAY) {
      for (uint32_t i = 0; i < plist_array_get_size(args); ++i) {
        if (auto a = plistString(plist_array_get_item(args, i))) words.push_back(*a);
      }
      // With both keys, "Program" is what runs and the array is its whole argument vector.
      if (words.size() > 1 && plist_dict_get_item(parsed, "Program")) words.erase(words.begin() + 1);
    }
    out.push_back(makeItem(kind, file, plistString(plist_dict_get_item(parsed, "Label")).value_or(""), words));
  }
}

void chromiumExtensions(const fs::path& browserFolder, std::vector<PersistenceItem>& out) {
  for (const auto& profile : subfolders(browserFolder)) {
    for (const auto& extension : subfolders(profile / "Extensions")) {
      // The newest version folder holds the manifest; a localised name ("__MSG_…__") says nothing.
      std::string name;
      const auto versions = subfolders(extension);
      if (!versions.empty()) {
        if (const auto text = readText(versions.back() / "manifest.json")) {
          if (const auto j = JsonText::parse(*text); j && j->is_object() && j->contains("name") &&
                                                     (*j)["name"].is_string()) {
            name = (*j)["name"].get<std::string>();
          }
        }
      }
      if (name.rfind("__MSG_", 0) == 0) name.clear();
      auto item = makeItem(PersistenceKind::browserExtension, extension,
                           name.empty() ? extension.filename().string() : name, {extension.string()});
      out.push_back(std::move(item));
    }
  }
}

void firefoxExtensions(const fs::path& profilesFolder, std::vector<PersistenceItem>& out) {
  for (const auto& profile : subfolders(profilesFolder)) {
    const auto text = readText(profile / "extensions.json");
    if (!text) continue;
    const auto j = JsonText::parse(*text);
    if (!j || !j->is_object() || !j->contains("addons") || !(*j)["addons"].is_array()) continue;
    for (const auto& addon : (*j)["addons"]) {
      if (!addon.is_object()) continue;
      const auto str = [&](const char* key) {
        return addon.contains(key) && addon[key].is_string() ? addon[key].get<std::string>() : std::string();
      };
      // Only what the user (or something acting as the user) installed; built-in ones come with the browser.
      if (str("type") != "extension" || str("location") != "app-profile" || str("id").empty()) continue;
      std::string name;
      if (addon.contains("defaultLocale") && addon["defaultLocale"].is_object() &&
          addon["defaultLocale"].contains("name") && addon["defaultLocale"]["name"].is_string())
        name = addon["defaultLocale"]["name"].get<std::string>();
      PersistenceItem item = makeItem(PersistenceKind::browserExtension, profile / "extensions" / (str("id") + ".xpi"),
                                      name.empty() ? str("id") : name, {});
      item.program = str("path");
      out.push_back(std::move(item));
    }
  }
}

bool startsWith(std::string_view s, std::string_view prefix) { return s.substr(0, prefix.size()) == prefix; }

void addFindings(PersistenceItem& item, bool checkSignatures, const Services& services, const fs::path& systemRoot) {
  if (item.program.empty() || item.kind == PersistenceKind::browserExtension) return;
  std::string program = item.program;
  if (program.find('/') == std::string::npos) {
    const auto found = Shell::which(program);
    if (!found) {
      item.findings.push_back("Program is missing");
      return;
    }
    program = *found;
  }
  const std::string standard = standardizedPath(program).string();
  struct stat st {};
  if (::stat(standard.c_str(), &st) != 0) {
    item.findings.push_back("Program is missing");
  }
  for (const auto* temp : {"tmp", "var/tmp", "private/tmp", "private/var/tmp", "dev/shm"}) {
    if (startsWith(standard, (systemRoot / temp).string() + "/")) {
      item.findings.push_back("Runs from a temporary folder");
      break;
    }
  }
  if (startsWith(fs::path(standard).filename().string(), ".")) item.findings.push_back("Program is hidden (its name starts with a dot)");
  if (item.findings.empty() || item.findings.front() != "Program is missing") {
    struct stat parent {};
    const bool parentOpen = ::stat(fs::path(standard).parent_path().c_str(), &parent) == 0 &&
                            (parent.st_mode & S_IWOTH) && !(parent.st_mode & S_ISVTX);
    if ((st.st_mode & S_IWOTH) || parentOpen) item.findings.push_back("Program is writable by others");
    if (checkSignatures) {
      const auto r = services.run("codesign", {"--verify", "--strict", standard}, 10);
      if (r.status != 0 && r.status != 127) {
        item.findings.push_back(r.stderr.find("not signed at all") != std::string::npos ? "Not signed"
                                                                                         : "Signature is invalid");
      }
    }
  }
}

}  // namespace

std::string_view kindLabel(PersistenceKind kind) {
  switch (kind) {
    case PersistenceKind::userLaunchAgent: return "Launch Agent (you)";
    case PersistenceKind::systemLaunchAgent: return "Launch Agent (all users)";
    case PersistenceKind::launchDaemon: return "Launch Daemon (root)";
    case PersistenceKind::loginItem: return "Login Item";
    case PersistenceKind::browserExtension: return "Browser Extension";
    case PersistenceKind::userUnit: return "Systemd Unit (you)";
    case PersistenceKind::sharedUserUnit: return "Systemd Unit (all users)";
    case PersistenceKind::systemService: return "Systemd Service (root)";
    case PersistenceKind::autostartEntry: return "Autostart Entry";
    case PersistenceKind::cronJob: return "Cron Job";
  }
  return "";
}

std::string_view rawValue(PersistenceKind kind) {
  switch (kind) {
    case PersistenceKind::userLaunchAgent: return "userLaunchAgent";
    case PersistenceKind::systemLaunchAgent: return "systemLaunchAgent";
    case PersistenceKind::launchDaemon: return "launchDaemon";
    case PersistenceKind::loginItem: return "loginItem";
    case PersistenceKind::browserExtension: return "browserExtension";
    case PersistenceKind::userUnit: return "userUnit";
    case PersistenceKind::sharedUserUnit: return "sharedUserUnit";
    case PersistenceKind::systemService: return "systemService";
    case PersistenceKind::autostartEntry: return "autostartEntry";
    case PersistenceKind::cronJob: return "cronJob";
  }
  return "";
}

Json toJson(const PersistenceItem& item) {
  return Json{{"id", item.id},         {"label", item.label},         {"kind", rawValue(item.kind)},
              {"path", item.path},     {"program", item.program},     {"arguments", item.arguments},
              {"findings", item.findings}};
}

PersistenceItem persistenceItemFromJson(const Json& j) {
  const Json& obj = JsonDecode::object(j, "background item");
  PersistenceItem item;
  item.id = JsonDecode::string(obj, "id");
  item.label = JsonDecode::string(obj, "label");
  const std::string kind = JsonDecode::string(obj, "kind");
  bool known = false;
  for (int k = 0; k <= static_cast<int>(PersistenceKind::cronJob); ++k) {
    if (rawValue(static_cast<PersistenceKind>(k)) == kind) {
      item.kind = static_cast<PersistenceKind>(k);
      known = true;
    }
  }
  if (!known) throw DecodeError("unknown background item kind " + kind);
  item.path = JsonDecode::string(obj, "path");
  item.program = JsonDecode::string(obj, "program");
  item.arguments = JsonDecode::stringArray(obj, "arguments");
  item.findings = JsonDecode::stringArray(obj, "findings");
  return item;
}

namespace PersistenceInspector {

std::vector<std::string> commandWords(std::string_view v) {
  std::vector<std::string> words;
  v = trim(v);
  // systemd's prefixes: "-" ignore failure, "@" argv[0] follows, ":" "+" "!" privilege handling.
  while (!v.empty() && (v[0] == '-' || v[0] == '@' || v[0] == ':' || v[0] == '+' || v[0] == '!')) v.remove_prefix(1);
  std::string word;
  bool quoted = false, any = false;
  for (size_t i = 0; i < v.size(); ++i) {
    const char c = v[i];
    if (c == '"') {
      quoted = !quoted;
      any = true;
    } else if (c == '\\' && quoted && i + 1 < v.size()) {
      word += v[++i];
    } else if ((c == ' ' || c == '\t') && !quoted) {
      if (any || !word.empty()) words.push_back(word);
      word.clear();
      any = false;
    } else {
      word += c;
    }
  }
  if (any || !word.empty()) words.push_back(word);
  // Desktop entry field codes ("%u", "%F") stand for files the launcher passes.
  std::erase_if(words, [](const std::string& w) { return w.size() == 2 && w[0] == '%'; });
  return words;
}

std::optional<PersistenceItem> cronItem(std::string_view line) {
  line = trim(line);
  if (line.empty() || line[0] == '#') return std::nullopt;
  const size_t firstBlank = line.find_first_of(" \t");
  const size_t eq = line.find('=');
  if (eq != std::string_view::npos && (firstBlank == std::string_view::npos || eq < firstBlank)) return std::nullopt;
  // "@reboot cmd" has one time field, "m h dom mon dow cmd" five.
  size_t fields = line[0] == '@' ? 1 : 5;
  std::string_view rest = line;
  while (fields-- > 0) {
    const size_t blank = rest.find_first_of(" \t");
    if (blank == std::string_view::npos) return std::nullopt;
    rest = trim(rest.substr(blank));
  }
  if (rest.empty()) return std::nullopt;
  PersistenceItem item;
  item.kind = PersistenceKind::cronJob;
  item.path = "crontab";
  item.id = "cronJob:" + std::string(line);
  item.label = std::string(rest);
  // The command is a shell line; its first word is what it runs.
  auto words = commandWords(rest.substr(0, rest.find_first_of(";|&<>")));
  if (!words.empty()) {
    item.program = words.front();
    item.arguments.assign(words.begin() + 1, words.end());
  }
  return item;
}

std::vector<PersistenceItem> loginItems(std::string_view text) {
  std::vector<PersistenceItem> out;
  while (!text.empty()) {
    const size_t nl = text.find('\n');
    std::string_view line = text.substr(0, nl);
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    const size_t tab = line.find('\t');
    if (tab != std::string_view::npos && tab + 1 < line.size() && line[tab + 1] == '/') {
      PersistenceItem item;
      item.kind = PersistenceKind::loginItem;
      item.path = std::string(line.substr(tab + 1));
      item.id = "loginItem:" + item.path;
      item.label =
          tab > 0 ? std::string(line.substr(0, tab)) : fs::path(item.path).filename().string();
      item.program = item.path;
      out.push_back(std::move(item));
    }
    if (nl == std::string_view::npos) break;
    text.remove_prefix(nl + 1);
  }
  return out;
}

std::vector<PersistenceItem> scan(const Paths& paths, bool checkSignatures, const Services& given,
                                  const fs::path& systemRoot) {
  const Services services = given.withDefaults();
  std::vector<PersistenceItem> items;
  if (paths.layout() == Layout::macos) {
    launchdJobs(paths.lib("LaunchAgents"), PersistenceKind::userLaunchAgent, items);
    launchdJobs(systemRoot / "Library/LaunchAgents", PersistenceKind::systemLaunchAgent, items);
    launchdJobs(systemRoot / "Library/LaunchDaemons", PersistenceKind::launchDaemon, items);
    const fs::path support = paths.lib("Application Support");
    for (const auto* browser : {"Google/Chrome", "Chromium", "BraveSoftware/Brave-Browser", "Microsoft Edge"})
      chromiumExtensions(support / browser, items);
    firefoxExtensions(support / "Firefox/Profiles", items);
    // Login items are known only to System Events (a missing osascript adds nothing).
    std::vector<std::string> script;
    for (const auto line : kLoginItemsScript) {
      script.push_back("-e");
      script.emplace_back(line);
    }
    if (const auto r = services.run("osascript", script, 10); r.ok())
      for (auto& item : loginItems(r.stdout)) items.push_back(std::move(item));
  } else {
    systemdUnits(paths.configHome() / "systemd/user", PersistenceKind::userUnit, items);
    systemdUnits(systemRoot / "etc/systemd/user", PersistenceKind::sharedUserUnit, items);
    systemdUnits(systemRoot / "etc/systemd/system", PersistenceKind::systemService, items);
    autostartEntries(paths.configHome() / "autostart", systemRoot / "etc/xdg/autostart", items);
    for (const auto* browser : {"google-chrome", "chromium", "BraveSoftware/Brave-Browser", "microsoft-edge", "vivaldi"})
      chromiumExtensions(paths.configHome() / browser, items);
    firefoxExtensions(paths.home() / ".mozilla/firefox", items);
  }
  // "crontab -l" fails with "no crontab for <user>" when there is none: no items.
  if (const auto r = services.run("crontab", {"-l"}, 5); r.ok()) {
    std::string_view text = r.stdout;
    while (!text.empty()) {
      const size_t nl = text.find('\n');
      if (auto item = cronItem(text.substr(0, nl))) items.push_back(std::move(*item));
      if (nl == std::string_view::npos) break;
      text.remove_prefix(nl + 1);
    }
  }
  for (auto& item : items) addFindings(item, checkSignatures, services, standardizedPath(systemRoot));
  std::stable_sort(items.begin(), items.end(), [](const auto& a, const auto& b) { return a.id < b.id; });
  items.erase(std::unique(items.begin(), items.end(), [](const auto& a, const auto& b) { return a.id == b.id; }),
              items.end());
  return items;
}

}  // namespace PersistenceInspector

std::vector<PersistenceChange> PersistenceWatch::check(const std::vector<PersistenceItem>& current) const {
  const auto decode = [](const Json& j) {
    if (!j.is_array()) throw DecodeError("the baseline is not an array");
    std::vector<PersistenceItem> out;
    for (const auto& e : j) out.push_back(persistenceItemFromJson(e));
    return out;
  };
  const auto baseline = JSONStore::load<std::vector<PersistenceItem>>(paths_.persistenceBaselineFile(), decode);
  std::vector<PersistenceChange> changes;
  if (baseline) {
    std::map<std::string, const PersistenceItem*> known;
    for (const auto& item : *baseline) known.emplace(item.id, &item);
    for (const auto& item : current) {
      const auto it = known.find(item.id);
      if (it == known.end()) {
        changes.push_back({item, true});
      } else if (it->second->label != item.label || it->second->program != item.program ||
                 it->second->arguments != item.arguments) {
        changes.push_back({item, false});
      }
    }
  }
  if (baseline != current) {
    try {
      JSONStore::save(toJsonArray(current), paths_.persistenceBaselineFile());
    } catch (const std::exception&) {
      // Best effort: the same changes are reported again next time, nothing is lost.
    }
  }
  return changes;
}

}  // namespace kestrel
