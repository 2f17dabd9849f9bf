// Cloud items on every platform: removal through the safe remover.
#include "core/system/fs/CloudItem.h"

#include "core/system/fs/SafeRemove.h"

namespace kestrel::platform {

void coordinatedRemove(const std::filesystem::path& path) {
  // No file coordinator is reachable from this library: the safe remover, walking from "/"
  // without following any link, is what the sync service then sees as a plain deletion.
  const RemoveResult r = SafeRemover("/").remove(path);
  if (!r.ok()) throw std::filesystem::filesystem_error(r.message(), path, r.error);
}

}  // namespace kestrel::platform
