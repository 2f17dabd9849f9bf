// Path conventions on macOS: /tmp, /var and /etc are links into "/private".
#include "core/system/PathRules.h"

namespace kestrel::platform {

bool standardizationStripsPrivate() noexcept { return true; }

}  // namespace kestrel::platform
