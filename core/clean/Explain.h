// Plain explanations of why a privileged removal left a path behind (the admin queue, the cleaner
// and the uninstaller show them).
#pragma once

#include <string>
#include <string_view>

namespace kestrel::Explain {

// First matching rule on the lower-cased output: a cancelled prompt, System Integrity Protection,
// a busy file, a read-only volume; empty output names the path; else the first 160 characters.
std::string removalFailure(std::string_view path, std::string_view output);

}  // namespace kestrel::Explain
