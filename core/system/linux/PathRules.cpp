// Path conventions on Linux: "/private" is an ordinary folder name.
#include "core/system/PathRules.h"

namespace kestrel::platform {

bool standardizationStripsPrivate() noexcept { return false; }

}  // namespace kestrel::platform
