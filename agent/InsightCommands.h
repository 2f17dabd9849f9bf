// The space insight commands: "forecast" and "growth".
#pragma once

#include "agent/Dispatcher.h"

#include <cstdint>
#include <optional>
#include <string_view>

namespace kestrel::agent {

// Free space, the trend of the space history and the predicted day the disk is full.
int forecastCommand(Context& ctx);
// "growth [days] [--snapshot]": the folders that grew or shrank most over about `days` days.
int growthCommand(Context& ctx);

// The positional day count of "growth": a decimal integer with an optional sign, or nothing.
std::optional<int64_t> parseDayCount(std::string_view text);

}  // namespace kestrel::agent
