// Services: the one value through which the core reaches the clock, child tools, the
// administrator prompt, notifications and the few file-system answers tests must stand in for.
#pragma once

#include "core/base/Dates.h"
#include "core/system/fs/FolderWatcher.h"
#include "core/system/process/Shell.h"
#include "core/system/process/SystemProbe.h"

#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace kestrel {

// Every member left empty means the real thing (`withDefaults` fills them in); a test replaces
// exactly the members it needs, in one place, and hands the value to every object it builds.
struct Services {
  // The current time.
  std::function<Date()> now;
  // Runs a tool with a time-out (Shell::run).
  std::function<Shell::Result(const std::string& tool, const std::vector<std::string>& args, double timeout)> run;
  // Runs one shell command as root behind the system's administrator prompt.
  std::function<Shell::Result(const std::string& command, const std::string& prompt, double timeout)> adminPrompt;
  // Posts a user notification; best effort.
  std::function<void(const std::string& title, const std::string& body)> notify;
  // Waits (between retries).
  std::function<void(std::chrono::duration<double>)> sleep;
  // Whether the current user may write the item (false when it does not exist).
  std::function<bool(const std::string& path)> isWritable;
  // A volume identifier for a path, or nothing when unknown. Empty: the quarantine compares the
  // devices of the folders it opened, which is the real test.
  std::function<std::optional<std::string>(const std::filesystem::path&)> volumeOf;
  // Removes one cloud item through the platform's file coordination.
  std::function<void(const std::filesystem::path&)> removeCloudItem;
  // Reads power, battery, idle time, space and running applications (SystemProbe::current
  // through `run`); the forecast is left to the caller.
  std::function<SystemState(const Paths&)> probe;
  // Makes a folder watcher (the platform's own by default; tests hand in a fake).
  std::function<std::unique_ptr<FolderWatcher>()> makeFolderWatcher;
  // The Shredder watcher's quiet time before a sweep, and its periodic timer.
  std::chrono::duration<double> shredderDebounce{5.0};
  std::chrono::duration<double> shredderTick{900.0};

  // A copy with every empty member set to the real service (volumeOf stays empty).
  Services withDefaults() const;
};

}  // namespace kestrel
