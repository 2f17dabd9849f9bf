// ServiceManager: installs, removes and reports the two background agents with the system's own
// service manager: launchd property lists on macOS (LaunchAgentManager), systemd user units on
// Linux (SystemdUserUnits). Both are plain files plus tool calls, compiled everywhere; the layout
// of the home chooses one.
#pragma once

#include <filesystem>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "core/system/Paths.h"
#include "core/system/Services.h"

namespace kestrel {

// The scheduler runs "run-scheduled" every 15 minutes; the shredder keeps "shred-watch" running.
enum class BackgroundAgent { scheduler, shredder };

// An install that did not happen. `code` is the failing tool's exit status (0 for a file error).
class ServiceError : public std::runtime_error {
 public:
  ServiceError(int code, const std::string& text) : std::runtime_error(text), code_(code) {}
  int code() const { return code_; }

 private:
  int code_;
};

class ServiceManager {
 public:
  // One file the manager writes for an agent: where it goes and its exact text.
  struct File {
    std::filesystem::path path;
    std::string text;
  };

  virtual ~ServiceManager() = default;

  // The manager of `paths.layout()`; every tool call goes through `services.run`.
  static std::unique_ptr<ServiceManager> make(const Paths& paths, const Services& services);

  // The files that define `agent` for the agent executable at `agentPath` (absolute).
  virtual std::vector<File> files(BackgroundAgent agent, const std::string& agentPath) const = 0;
  // Writes the files atomically and starts the agent; installing twice in a row succeeds.
  // Throws ServiceError with the text the user sees.
  virtual void install(BackgroundAgent agent, const std::string& agentPath) = 0;
  // Stops the agent and removes its files; best effort, never throws, nothing to do is fine.
  virtual void uninstall(BackgroundAgent agent) = 0;
  // True when the agent's defining file exists.
  virtual bool isInstalled(BackgroundAgent agent) const = 0;
  // Whether the service manager has the agent loaded and running (scheduler: its timer active);
  // nothing when it cannot tell.
  virtual std::optional<bool> isActive(BackgroundAgent agent) const = 0;
  // Starts an installed agent now (the shredder after it was switched on); best effort.
  virtual void start(BackgroundAgent agent) = 0;
  // Stops a running agent now (the shredder after it was switched off); best effort.
  virtual void stop(BackgroundAgent agent) = 0;
  // Stops and removes the agents of the product's earlier name; best effort.
  virtual void removeLegacyAgents() = 0;
};

}  // namespace kestrel
