// UUID text: fresh random (version 4) identifiers in upper-case form, and the strict parser.
#pragma once

#include "core/base/Json.h"

#include <optional>
#include <string>
#include <string_view>

namespace kestrel::Uuid {

// A new random UUID from the system's random source, "8-4-4-4-12" upper-case hexadecimal.
std::string make();
// Accepts exactly 36 characters, hexadecimal digits of either case with dashes at 8, 13, 18 and
// 23; returns the upper-case form. Braces, missing dashes or anything extra give nothing.
std::optional<std::string> parse(std::string_view text);
// An upper-case UUID from a JSON string; DecodeError for anything else.
std::string fromJson(const Json& j);

}  // namespace kestrel::Uuid
