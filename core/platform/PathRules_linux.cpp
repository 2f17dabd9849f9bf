// Path conventions on Linux: "/private" is an ordinary folder name.
#include "core/platform/PathRules.h"

namespace kestrel::platform {

bool standardizationStripsPrivate() noexcept { return false; }

}  // namespace kestrel::platform
