// Background items: what starts by itself (launch agents and daemons, systemd units, autostart
// entries, cron jobs, browser extensions), what looks wrong with each, and the baseline that
// tells new and changed items from known ones.
#pragma once

#include "core/base/Json.h"
#include "core/system/Paths.h"
#include "core/system/Services.h"

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

namespace kestrel {

enum class PersistenceKind {
  userLaunchAgent,    // macOS ~/Library/LaunchAgents
  systemLaunchAgent,  // macOS /Library/LaunchAgents
  launchDaemon,       // macOS /Library/LaunchDaemons
  loginItem,
  browserExtension,
  userUnit,        // Linux ~/.config/systemd/user
  sharedUserUnit,  // Linux /etc/systemd/user
  systemService,   // Linux /etc/systemd/system
  autostartEntry,  // Linux XDG autostart
  cronJob,         // the user's crontab
};

// "Launch Agent (you)", "Systemd Unit (all users)", "Cron Job", …
std::string_view kindLabel(PersistenceKind kind);
std::string_view rawValue(PersistenceKind kind);

struct PersistenceItem {
  std::string id;  // stable identity: the kind and the defining file (a cron job: its line)
  std::string label;
  PersistenceKind kind = PersistenceKind::userLaunchAgent;
  std::string path;     // the file that defines it ("crontab" for cron jobs)
  std::string program;  // what it runs (an extension: its folder); may be empty
  std::vector<std::string> arguments;
  std::vector<std::string> findings;  // texts a user can act on, e.g. "Program is missing"

  bool operator==(const PersistenceItem&) const = default;
};

Json toJson(const PersistenceItem& item);
// Throws DecodeError.
PersistenceItem persistenceItemFromJson(const Json& j);

namespace PersistenceInspector {

// Every background item of this home, sorted by id. System folders (/etc, /Library, and the
// temporary folders /tmp, /var/tmp, /dev/shm a program should never run from) are below `systemRoot`; the crontab comes from "crontab -l" through `services.run`. With
// `checkSignatures` each existing program is verified with "codesign" (macOS; a missing tool
// adds nothing). Unreadable folders and files yield fewer items, never an error.
std::vector<PersistenceItem> scan(const Paths& paths, bool checkSignatures, const Services& services = {},
                                  const std::filesystem::path& systemRoot = "/");

// The program of a systemd "ExecStart=" value or a desktop entry's "Exec=" value: prefixes such
// as "-" or "@" and field codes ("%u") dropped, double quotes honoured. Empty when there is none.
std::vector<std::string> commandWords(std::string_view value);
// One crontab line as an item; nothing for blank lines, comments and variable assignments.
std::optional<PersistenceItem> cronItem(std::string_view line);
// macOS login items from the answer of kLoginItemsScript: one "<name>\t<path>" line each (lines
// without a path are skipped).
std::vector<PersistenceItem> loginItems(std::string_view text);
// The System Events script that lists the login items, one "-e" argument per line.
inline constexpr std::string_view kLoginItemsScript[] = {
    "tell application \"System Events\"",
    "set out to \"\"",
    "repeat with i in every login item",
    "set out to out & (name of i) & tab & (path of i) & linefeed",
    "end repeat",
    "return out",
    "end tell"};

}  // namespace PersistenceInspector

struct PersistenceChange {
  PersistenceItem item;
  bool isNew = true;  // false: its label or command changed
};

// The baseline in paths.persistenceBaselineFile().
class PersistenceWatch {
 public:
  explicit PersistenceWatch(Paths paths) : paths_(std::move(paths)) {}
  // The items of `current` that the baseline lacks or holds with another label or command, in
  // `current`'s order; then `current` becomes the baseline. Without a readable baseline nothing
  // is reported (the first look only learns what is there). A failed save is dropped.
  std::vector<PersistenceChange> check(const std::vector<PersistenceItem>& current) const;

 private:
  Paths paths_;
};

}  // namespace kestrel
