// Agent state: when the scheduler last warned of a full disk and last took a growth snapshot.
#pragma once

#include "core/base/Dates.h"
#include "core/base/Json.h"
#include "core/system/Paths.h"

#include <optional>

namespace kestrel {

struct AgentState {
  std::optional<Date> lastForecastAlert;
  std::optional<Date> lastGrowthSnapshot;

  // The state in paths.agentStateFile(); both absent when the file is missing or does not decode.
  static AgentState load(const Paths& paths);
  // Writes it atomically; best effort (a failed write is dropped: the worst is one repeated
  // warning or snapshot).
  void save(const Paths& paths) const noexcept;

  bool operator==(const AgentState&) const = default;
};

Json toJson(const AgentState& s);
// Throws DecodeError when a present key is not ISO 8601 text.
AgentState agentStateFromJson(const Json& j);

}  // namespace kestrel
