// ConfigStore: the settings file "config.json" and how damage to it is told apart from its absence.
#pragma once

#include "core/model/AppConfig.h"
#include "core/store/JSONStore.h"
#include "core/system/Paths.h"

#include <string>

namespace kestrel {

class ConfigStore {
 public:
  explicit ConfigStore(Paths paths) : paths_(std::move(paths)) {}
  // Never fails: a missing, unreadable or undecodable file gives the defaults.
  AppConfig load() const;
  // The same reading, telling a missing file (defaults, nothing to say) from one that exists but
  // cannot be read or decoded: removals must not run on defaults that lack the user's protections.
  JSONStore::Loaded<AppConfig> loadChecked() const;
  // "Settings file <path> is damaged (<reason>); nothing was removed. Fix it or delete it."
  std::string damagedMessage(const std::string& reason) const;
  // Writes every field atomically; throws the file system's error.
  void save(const AppConfig& config) const;

 private:
  Paths paths_;
};

}  // namespace kestrel
