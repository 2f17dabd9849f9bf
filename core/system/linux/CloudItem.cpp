// Cloud placeholders on Linux: there are none, and there is no file coordinator.
#include "core/system/CloudItem.h"

#include "core/system/SafeRemove.h"

namespace kestrel::platform {

bool isDataless(const std::filesystem::path&) noexcept { return false; }

std::optional<std::string> evictUbiquitousItem(const std::filesystem::path&) {
  return std::string("This system has no cloud document service");
}

void coordinatedRemove(const std::filesystem::path& path) {
  // No file coordinator here: the safe remover, walking from "/" without following any link.
  const RemoveResult r = SafeRemover("/").remove(path);
  if (!r.ok()) throw std::filesystem::filesystem_error(r.message(), path, r.error);
}

}  // namespace kestrel::platform
