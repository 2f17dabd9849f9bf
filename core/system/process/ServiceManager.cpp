// ServiceManager: the launchd property lists of macOS and the systemd user units of Linux. Both
// are plain text plus tool calls, so each is compiled and tested on every system.
#include "core/system/process/ServiceManager.h"

#include <plist/plist.h>
#include <unistd.h>

#include <memory>
#include <system_error>

#include "core/base/Text.h"
#include "core/system/fs/FS.h"
#include "core/system/fs/StoreFile.h"

namespace kestrel {
namespace {

constexpr double kToolTimeout = 10;

std::string_view labelOf(BackgroundAgent agent) {
  return agent == BackgroundAgent::scheduler ? AppInfo::agentLabel : AppInfo::shredderAgentLabel;
}

std::string errorText(const Shell::Result& r) {
  std::string text = r.stderr.empty() ? r.stdout : r.stderr;
  while (!text.empty() && (text.back() == '\n' || text.back() == ' ')) text.pop_back();
  return text;
}

void removeQuietly(const fs::path& file) {
  std::error_code ec;
  fs::remove(file, ec);
}

// Writes every file atomically; a write error becomes the install's error.
void writeFiles(const std::vector<ServiceManager::File>& files) {
  for (const auto& f : files) {
    try {
      StoreFile::writeAtomically(f.text, f.path);
    } catch (const std::exception& e) {
      throw ServiceError(0, "Could not write " + f.path.string() + ": " + e.what());
    }
  }
}

// ---------------------------------------------------------------------------------------------
// macOS: launchd property lists in ~/Library/LaunchAgents, loaded into the "gui/<uid>" domain.

struct PlistFree {
  void operator()(void* node) const { plist_free(static_cast<plist_t>(node)); }
};

class LaunchAgentManager final : public ServiceManager {
 public:
  LaunchAgentManager(Paths paths, Services services)
      : paths_(std::move(paths)), services_(std::move(services)) {}

  std::vector<File> files(BackgroundAgent agent, const std::string& agentPath) const override {
    const bool scheduler = agent == BackgroundAgent::scheduler;
    const std::string log = (scheduler ? paths_.agentLogFile() : paths_.shredderLogFile()).string();
    std::unique_ptr<void, PlistFree> dict(plist_new_dict());
    auto set = [&](const char* key, plist_t value) { plist_dict_set_item(dict.get(), key, value); };
    // Keys in sorted order, as the system's own writer lays them out.
    if (!scheduler) set("KeepAlive", plist_new_bool(1));
    set("Label", plist_new_string(std::string(labelOf(agent)).c_str()));
    set("LowPriorityIO", plist_new_bool(1));
    set("Nice", plist_new_uint(scheduler ? 10 : 12));
    set("ProcessType", plist_new_string("Background"));
    plist_t arguments = plist_new_array();
    plist_array_append_item(arguments, plist_new_string(agentPath.c_str()));
    plist_array_append_item(arguments,
                            plist_new_string(scheduler ? "run-scheduled" : "shred-watch"));
    set("ProgramArguments", arguments);
    set("RunAtLoad", plist_new_bool(1));
    set("StandardErrorPath", plist_new_string(log.c_str()));
    set("StandardOutPath", plist_new_string(log.c_str()));
    if (scheduler) set("StartInterval", plist_new_uint(900));
    char* xml = nullptr;
    uint32_t length = 0;
    plist_to_xml(dict.get(), &xml, &length);
    if (!xml)
      throw ServiceError(0, "Could not write the property list of " + std::string(labelOf(agent)));
    std::string text(xml, length);
    plist_to_xml_free(xml);
    return {{plistFile(labelOf(agent)), std::move(text)}};
  }

  void install(BackgroundAgent agent, const std::string& agentPath) override {
    try {
      paths_.ensureSupportDirs();
      fs::create_directories(paths_.launchAgentsDir());
    } catch (const std::exception& e) {
      throw ServiceError(0, e.what());
    }
    const auto defined = files(agent, agentPath);
    const fs::path plist = defined.front().path;
    // The agent may not be loaded; a loaded one must go before its file changes.
    (void)launchctl({"bootout", domain(), plist.string()});
    writeFiles(defined);
    const Shell::Result r = launchctl({"bootstrap", domain(), plist.string()});
    if (!r.ok() && r.stderr.find("already") == std::string::npos)
      throw ServiceError(r.status, "launchctl: " + r.stderr);
  }

  void uninstall(BackgroundAgent agent) override { unload(plistFile(labelOf(agent)), false); }

  bool isInstalled(BackgroundAgent agent) const override {
    return FS::exists(plistFile(labelOf(agent)));
  }

  std::optional<bool> isActive(BackgroundAgent agent) const override {
    const Shell::Result r = launchctl({"print", domain() + "/" + std::string(labelOf(agent))});
    if (r.status == 127) return std::nullopt;
    return r.ok();
  }

  void start(BackgroundAgent agent) override {
    (void)launchctl({"kickstart", domain() + "/" + std::string(labelOf(agent))});
  }

  void stop(BackgroundAgent agent) override {
    (void)launchctl({"kill", "SIGTERM", domain() + "/" + std::string(labelOf(agent))});
  }

  void removeLegacyAgents() override {
    for (const auto label : {AppInfo::legacyAgentLabel, AppInfo::legacyShredderAgentLabel})
      unload(plistFile(label), true);
  }

 private:
  fs::path plistFile(std::string_view label) const {
    return paths_.launchAgentFile(label, ".plist");
  }
  static std::string domain() { return "gui/" + std::to_string(::getuid()); }
  Shell::Result launchctl(const std::vector<std::string>& args) const {
    return services_.run("/bin/launchctl", args, kToolTimeout);
  }
  // Best effort: boots the job out and deletes its file (only when something is there, if asked).
  void unload(const fs::path& plist, bool onlyWhenPresent) const {
    if (onlyWhenPresent && !FS::exists(plist)) return;  // a dangling link counts as present
    (void)launchctl({"bootout", domain(), plist.string()});
    removeQuietly(plist);
  }

  Paths paths_;
  Services services_;
};

// ---------------------------------------------------------------------------------------------
// Linux: systemd user units in $XDG_CONFIG_HOME/systemd/user.

// The executable of a unit's command line, so that systemd runs exactly that file: in double
// quotes, with "%" doubled (specifiers are expanded there). A "$" stays as written: variables are
// never expanded in the executable's own name ("$$" would be taken literally). systemd refuses an
// executable name holding quotes, backslashes, control characters or bytes that are not UTF-8,
// so such a path is refused here, naming what is in the way.
std::string execPath(std::string_view path) {
  if (!Utf8::isValid(path))
    throw ServiceError(0, "Cannot write a systemd unit for " + Utf8::displayText(path) +
                              ": systemd runs only programs whose path is UTF-8 text; move it to a plainer folder.");
  std::string out = "\"";
  for (const char c : path) {
    const auto u = static_cast<unsigned char>(c);
    if (c == '"' || c == '\\' || c == '\'' || u < 0x20 || u == 0x7f) {
      const std::string shown = u < 0x20 || u == 0x7f ? "a control character" : std::string("\"") + c + "\"";
      throw ServiceError(0, "Cannot write a systemd unit for " + Utf8::displayText(path) + ": systemd does not run " +
                                "a program whose path holds " + shown + "; move it to a folder without it.");
    }
    if (c == '%') out += '%';
    out += c;
  }
  return out + '"';
}

// A path in a setting that takes it whole (no quoting): only specifiers need escaping.
std::string settingPath(const fs::path& path) {
  std::string out;
  for (char c : path.string()) {
    if (c == '%') out += '%';
    out += c;
  }
  return out;
}

class SystemdUserUnits final : public ServiceManager {
 public:
  SystemdUserUnits(Paths paths, Services services)
      : paths_(std::move(paths)), services_(std::move(services)) {}

  std::vector<File> files(BackgroundAgent agent, const std::string& agentPath) const override {
    const std::string name(AppInfo::name);
    if (agent == BackgroundAgent::scheduler) {
      const std::string service =
          "[Unit]\n"
          "Description=" +
          name +
          ": scheduled cleaning rules\n"
          "\n"
          "[Service]\n"
          "Type=oneshot\n"
          "ExecStart=" +
          execPath(agentPath) +
          " run-scheduled\n"
          "Nice=10\n"
          "IOSchedulingClass=idle\n"
          "StandardOutput=append:" +
          settingPath(paths_.agentLogFile()) +
          "\n"
          "StandardError=inherit\n";
      // Calendar times catch up a run missed while the machine was off (Persistent); the startup
      // delay gives the one run shortly after login that a login session expects.
      const std::string timer =
          "[Unit]\n"
          "Description=" +
          name +
          ": run the scheduled cleaning rules every 15 minutes\n"
          "\n"
          "[Timer]\n"
          "OnCalendar=*:0/15\n"
          "Persistent=true\n"
          "AccuracySec=1min\n"
          "OnStartupSec=2min\n"
          "Unit=" +
          unitName(AppInfo::agentLabel, ".service") +
          "\n"
          "\n"
          "[Install]\n"
          "WantedBy=timers.target\n";
      return {{unitFile(AppInfo::agentLabel, ".service"), service},
              {unitFile(AppInfo::agentLabel, ".timer"), timer}};
    }
    // Restarts only after a failure, and at most five times in five minutes; "Shredder is off;
    // exiting." is a clean exit and leaves it stopped.
    const std::string service =
        "[Unit]\n"
        "Description=" +
        name +
        ": Shredder, watching the download folders\n"
        "StartLimitIntervalSec=300\n"
        "StartLimitBurst=5\n"
        "\n"
        "[Service]\n"
        "Type=simple\n"
        "ExecStart=" +
        execPath(agentPath) +
        " shred-watch\n"
        "Restart=on-failure\n"
        "RestartSec=10\n"
        "Nice=12\n"
        "IOSchedulingClass=idle\n"
        "StandardOutput=append:" +
        settingPath(paths_.shredderLogFile()) +
        "\n"
        "StandardError=inherit\n"
        "\n"
        "[Install]\n"
        "WantedBy=default.target\n";
    return {{unitFile(AppInfo::shredderAgentLabel, ".service"), service}};
  }

  void install(BackgroundAgent agent, const std::string& agentPath) override {
    try {
      paths_.ensureSupportDirs();  // the log folder: systemd appends to the file, not the folder
      fs::create_directories(paths_.launchAgentsDir());
    } catch (const std::exception& e) {
      throw ServiceError(0, e.what());
    }
    const auto defined = files(agent, agentPath);
    writeFiles(defined);
    const Shell::Result reload = systemctl({"daemon-reload"});
    if (!reload.ok()) {
      // Files no manager reads would only make the agent look installed.
      for (const auto& f : defined) removeQuietly(f.path);
      throw ServiceError(reload.status, noManagerText(agent, agentPath, reload));
    }
    const Shell::Result enable = systemctl({"enable", "--now", mainUnit(agent)});
    if (!enable.ok()) throw ServiceError(enable.status, "systemctl: " + errorText(enable));
  }

  void uninstall(BackgroundAgent agent) override {
    if (agent == BackgroundAgent::scheduler)
      remove(AppInfo::agentLabel, {".timer", ".service"});
    else
      remove(AppInfo::shredderAgentLabel, {".service"});
  }

  bool isInstalled(BackgroundAgent agent) const override {
    return FS::exists(paths_.launchAgentsDir() / mainUnit(agent));
  }

  std::optional<bool> isActive(BackgroundAgent agent) const override {
    const Shell::Result r = systemctl({"is-active", mainUnit(agent)});
    std::string state = r.stdout;
    while (!state.empty() && (state.back() == '\n' || state.back() == ' ')) state.pop_back();
    if (state == "active" || state == "activating" || state == "reloading") return true;
    if (state == "inactive" || state == "failed" || state == "deactivating") return false;
    return std::nullopt;  // no manager answered
  }

  void start(BackgroundAgent agent) override {
    // A stopped shredder (it exited while switched off) is started afresh; the timer just runs.
    (void)systemctl({agent == BackgroundAgent::shredder ? "restart" : "start", mainUnit(agent)});
  }

  void stop(BackgroundAgent agent) override { (void)systemctl({"stop", mainUnit(agent)}); }

  void removeLegacyAgents() override {
    remove(AppInfo::legacyAgentLabel, {".timer", ".service"});
    remove(AppInfo::legacyShredderAgentLabel, {".service"});
  }

 private:
  static std::string unitName(std::string_view label, std::string_view extension) {
    return std::string(label) + std::string(extension);
  }
  static std::string mainUnit(BackgroundAgent agent) {
    return agent == BackgroundAgent::scheduler ? unitName(AppInfo::agentLabel, ".timer")
                                               : unitName(AppInfo::shredderAgentLabel, ".service");
  }
  fs::path unitFile(std::string_view label, std::string_view extension) const {
    return paths_.launchAgentFile(label, extension);
  }
  Shell::Result systemctl(std::vector<std::string> args) const {
    args.insert(args.begin(), "--user");
    return services_.run("systemctl", args, kToolTimeout);
  }

  // Best effort: stops and disables the first unit when any file is there, removes the files,
  // and lets the manager forget them.
  void remove(std::string_view label, const std::vector<std::string_view>& extensions) const {
    bool present = false;
    for (const auto ext : extensions) present = present || FS::exists(unitFile(label, ext));
    if (!present) return;
    (void)systemctl({"disable", "--now", unitName(label, extensions.front())});
    for (const auto ext : extensions) removeQuietly(unitFile(label, ext));
    (void)systemctl({"daemon-reload"});
  }

  std::string noManagerText(BackgroundAgent agent, const std::string& agentPath,
                            const Shell::Result& r) const {
    std::string text =
        "No systemd user service manager answered (systemctl --user: " + errorText(r) +
        "), so nothing was installed. ";
    if (agent == BackgroundAgent::scheduler) {
      text +=
          "To run the scheduled rules without it, add this line to your crontab (crontab "
          "-e):\n*/15 * * * * " +
          Text::shellQuote(agentPath) + " run-scheduled >> " +
          Text::shellQuote(paths_.agentLogFile().string()) + " 2>&1";
    } else {
      text +=
          "To watch the download folders without it, start this in your session's autostart:\n" +
          Text::shellQuote(agentPath) + " shred-watch >> " +
          Text::shellQuote(paths_.shredderLogFile().string()) + " 2>&1";
    }
    return text;
  }
  Paths paths_;
  Services services_;
};

}  // namespace

std::unique_ptr<ServiceManager> ServiceManager::make(const Paths& paths, const Services& services) {
  const Services s = services.withDefaults();
  if (paths.layout() == Layout::macos) return std::make_unique<LaunchAgentManager>(paths, s);
  return std::make_unique<SystemdUserUnits>(paths, s);
}

}  // namespace kestrel
