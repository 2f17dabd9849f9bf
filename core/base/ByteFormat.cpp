// Byte-count text in the platform's file style.
#include "core/base/ByteFormat.h"

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <string>

namespace kestrel::ByteFormat {
namespace {

constexpr const char* kUnits[] = {"KB", "MB", "GB", "TB", "PB", "EB"};

// Rounds the decimal digit string `digits` × 10^(exp10 - len + 1) half-even to `frac` fraction
// digits; returns integer part and fraction part as text (fraction without trailing zeros).
std::pair<std::string, std::string> roundHalfEven(double value, int frac) {
  char buf[64];
  auto r = std::to_chars(buf, buf + sizeof buf, value, std::chars_format::scientific);
  std::string sci(buf, r.ptr);
  const auto e = sci.find('e');
  std::string digits = sci.substr(0, e);
  const int exp10 = std::atoi(sci.c_str() + e + 1);
  digits.erase(std::remove(digits.begin(), digits.end(), '.'), digits.end());
  // Position of the decimal point within digits: after (exp10 + 1) digits.
  int point = exp10 + 1;
  if (point <= 0) {
    digits.insert(0, static_cast<size_t>(-point + 1), '0');
    point = 1;
  }
  if (static_cast<int>(digits.size()) < point + frac) digits.append(static_cast<size_t>(point + frac) - digits.size(), '0');
  std::string kept = digits.substr(0, static_cast<size_t>(point + frac));
  std::string rest = digits.substr(static_cast<size_t>(point + frac));
  bool roundUp = false;
  if (!rest.empty()) {
    if (rest[0] > '5') roundUp = true;
    else if (rest[0] == '5') {
      const bool beyond = rest.find_first_not_of('0', 1) != std::string::npos;
      roundUp = beyond || ((kept.back() - '0') % 2 == 1);
    }
  }
  if (roundUp) {
    int i = static_cast<int>(kept.size()) - 1;
    while (i >= 0) {
      if (kept[static_cast<size_t>(i)] == '9') { kept[static_cast<size_t>(i)] = '0'; --i; }
      else { ++kept[static_cast<size_t>(i)]; break; }
    }
    if (i < 0) { kept.insert(0, "1"); ++point; }
  }
  std::string intPart = kept.substr(0, static_cast<size_t>(point));
  std::string fracPart = kept.substr(static_cast<size_t>(point));
  const auto nz = intPart.find_first_not_of('0');
  intPart = nz == std::string::npos ? "0" : intPart.substr(nz);
  while (!fracPart.empty() && fracPart.back() == '0') fracPart.pop_back();
  return {intPart, fracPart};
}

std::string group(const std::string& intPart) {
  std::string out;
  const size_t n = intPart.size();
  for (size_t i = 0; i < n; ++i) {
    if (i > 0 && (n - i) % 3 == 0) out += ',';
    out += intPart[i];
  }
  return out;
}

}  // namespace

std::string string(int64_t n) {
  if (n == 0) return "Zero KB";
  if (n == 1 || n == -1) return std::to_string(n) + " byte";
  // Magnitude as unsigned so that INT64_MIN has one.
  const uint64_t mag = n < 0 ? 0 - static_cast<uint64_t>(n) : static_cast<uint64_t>(n);
  if (mag < 1000) return std::to_string(n) + " bytes";
  int k = 0;
  double divisor = 1000.0;
  while (k < 5 && static_cast<double>(mag) >= divisor * 1000.0) { ++k; divisor *= 1000.0; }
  for (;;) {
    const int frac = k == 0 ? 0 : (k == 1 ? 1 : 2);
    const double value = static_cast<double>(mag) / divisor;
    auto [ip, fp] = roundHalfEven(value, frac);
    if (ip == "1000" && fp.empty() && k < 5) { ++k; divisor *= 1000.0; continue; }
    std::string text = (n < 0 ? "-" : "") + group(ip);
    if (!fp.empty()) text += "." + fp;
    return text + " " + kUnits[k];
  }
}

}  // namespace kestrel::ByteFormat
