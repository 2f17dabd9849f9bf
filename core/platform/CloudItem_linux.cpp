// Cloud placeholders on Linux: there are none, and there is no file coordinator.
#include "core/platform/CloudItem.h"

namespace kestrel::platform {

bool isDataless(const std::filesystem::path&) noexcept { return false; }

std::optional<std::string> evictUbiquitousItem(const std::filesystem::path&) {
  return std::string("This system has no cloud document service");
}

void coordinatedRemove(const std::filesystem::path& path) {
  // remove_all never follows a link: a link is removed as a link.
  std::filesystem::remove_all(path);
}

}  // namespace kestrel::platform
