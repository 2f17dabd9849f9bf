// Agent state: its JSON form and file.
#include "core/schedule/AgentState.h"

#include "core/store/JSONStore.h"

namespace kestrel {
namespace {

std::optional<Date> optDate(const Json& obj, const char* key) {
  const auto text = JsonDecode::optString(obj, key);
  if (!text) return std::nullopt;
  auto d = Dates::parseISO8601(*text);
  if (!d) throw DecodeError(std::string(key) + " is not an ISO 8601 date");
  return d;
}

}  // namespace

Json toJson(const AgentState& s) {
  Json j = Json::object();
  if (s.lastForecastAlert) j["lastForecastAlert"] = Dates::iso8601(*s.lastForecastAlert);
  if (s.lastGrowthSnapshot) j["lastGrowthSnapshot"] = Dates::iso8601(*s.lastGrowthSnapshot);
  return j;
}

AgentState agentStateFromJson(const Json& j) {
  const Json& obj = JsonDecode::object(j, "agent state");
  return {optDate(obj, "lastForecastAlert"), optDate(obj, "lastGrowthSnapshot")};
}

AgentState AgentState::load(const Paths& paths) {
  return JSONStore::load<AgentState>(paths.agentStateFile(), agentStateFromJson).value_or(AgentState{});
}

void AgentState::save(const Paths& paths) const noexcept {
  try {
    JSONStore::save(toJson(*this), paths.agentStateFile());
  } catch (const std::exception&) {
    // Best effort by design: see the header.
  }
}

}  // namespace kestrel
