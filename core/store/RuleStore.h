// RuleStore: the rules file "rules.json" in the support folder.
#pragma once

#include "core/model/ScheduleRule.h"
#include "core/store/JSONStore.h"
#include "core/system/Paths.h"

#include <chrono>
#include <functional>
#include <vector>

namespace kestrel {

// The rules file "rules.json" in the support folder.
class RuleStore {
 public:
  explicit RuleStore(Paths paths) : paths_(std::move(paths)) {}

  // The saved rules; the defaults (not written) when the file is missing, unreadable or any part
  // of it does not decode. "[]" is an empty list.
  std::vector<ScheduleRule> load(Date now = std::chrono::system_clock::now()) const;
  // The same reading, telling a missing file (the defaults, nothing to say) from one that exists
  // but cannot be read or decoded (no value, and the reason): no rule may run on defaults the user
  // may have switched off.
  JSONStore::Loaded<std::vector<ScheduleRule>> loadChecked(Date now = std::chrono::system_clock::now()) const;
  // "Rules file <path> is damaged (<reason>); no rule runs. Fix it or delete it."
  std::string damagedMessage(const std::string& reason) const;
  // Atomic, durable replace of the file; throws the write's error.
  void save(const std::vector<ScheduleRule>& rules) const;
  // Read-modify-write through JSONStore::update, so the agent and the app never lose each other's
  // changes: loads (the defaults when there is no file), lets `change` edit the list, saves it.
  // Throws JSONStore::StoreError when another writer holds the store too long or when the file
  // exists but does not decode (it is then left as it is), else like save().
  std::vector<ScheduleRule> update(const std::function<void(std::vector<ScheduleRule>&)>& change,
                                   Date now = std::chrono::system_clock::now()) const;

 private:
  Paths paths_;
};

}  // namespace kestrel
