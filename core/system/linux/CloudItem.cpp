// Cloud placeholders on Linux: there are none, and no cloud document service to evict through.
#include "core/system/fs/CloudItem.h"

#include <stdexcept>

namespace kestrel::platform {

bool isDataless(const std::filesystem::path&) noexcept { return false; }

void evictUbiquitousItem(const std::filesystem::path&) {
  throw CloudServiceError("This system has no cloud document service");
}

}  // namespace kestrel::platform
