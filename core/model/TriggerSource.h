// Why a clean happened: a manual clean, a schedule rule by name, an uninstall by app name.
#pragma once

#include "core/base/Json.h"

#include <string>

namespace kestrel {

// Why a clean happened; stored with audit records and quarantine sessions.
struct TriggerSource {
  enum class Kind { schedule, uninstall, manual };
  Kind kind = Kind::manual;
  std::string name;  // the rule's name (schedule) or the app's name (uninstall)

  static TriggerSource manual() { return {}; }
  static TriggerSource schedule(std::string ruleName) {
    return {Kind::schedule, std::move(ruleName)};
  }
  static TriggerSource uninstall(std::string appName) {
    return {Kind::uninstall, std::move(appName)};
  }

  // Display text for listings: "Manual", "Schedule: " + rule, "Uninstall: " + app.
  std::string label() const;
  bool operator==(const TriggerSource&) const = default;
};

Json toJson(const TriggerSource& t);
// One key naming the case with an object of its payload; DecodeError for anything else.
TriggerSource triggerSourceFromJson(const Json& j);

}  // namespace kestrel
