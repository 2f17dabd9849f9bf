// Plain explanations of why a privileged removal left a path behind.
#pragma once

#include <string>
#include <string_view>

namespace kestrel::UninstallService {

// First matching rule on the lower-cased output: a cancelled prompt, System Integrity Protection,
// a busy file, a read-only volume; empty output names the path; else the first 160 characters.
std::string explain(std::string_view path, std::string_view output);

}  // namespace kestrel::UninstallService
