// Byte counts as users read them: "Zero KB", "999 bytes", "1.23 GB" (decimal units, en_US).
#pragma once

#include <cstdint>
#include <string>

namespace kestrel::ByteFormat {

// File style: base 1000, KB with no fraction, MB with one, GB and up with two digits, rounding
// half-even on the shortest decimal, promoted to the next unit when the rounded value reaches 1000.
std::string string(int64_t bytes);

}  // namespace kestrel::ByteFormat
