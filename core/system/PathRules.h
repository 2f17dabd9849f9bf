// The platform's path conventions that the safety policy's standardisation depends on.
#pragma once

namespace kestrel::platform {

// True where path standardisation drops a leading "/private" from paths that still exist
// without it (macOS, whose /tmp, /var and /etc live under /private).
bool standardizationStripsPrivate() noexcept;

}  // namespace kestrel::platform
