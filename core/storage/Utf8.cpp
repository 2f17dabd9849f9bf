// UTF-8 checks and the lossy display form of names.
#include "core/storage/Utf8.h"

namespace kestrel::Utf8 {

bool isValid(std::string_view s) noexcept {
  for (size_t i = 0; i < s.size();) {
    const Sequence q = sequenceAt(s, i);
    if (!q.valid) return false;
    i += q.length;
  }
  return true;
}

std::string displayText(std::string_view s) {
  std::string out;
  out.reserve(s.size());
  for (size_t i = 0; i < s.size();) {
    const Sequence q = sequenceAt(s, i);
    if (q.valid) {
      out.append(s, i, q.length);
    } else {
      out += "\xEF\xBF\xBD";
    }
    i += q.length;
  }
  return out;
}

}  // namespace kestrel::Utf8
