// Cloud placeholders on macOS: the dataless flag of the file system, and the cloud tools' fallback.
#include "core/system/fs/CloudItem.h"

#include <sys/stat.h>

#ifndef SF_DATALESS
#define SF_DATALESS 0x40000000
#endif

#include <stdexcept>

namespace kestrel::platform {

bool isDataless(const std::filesystem::path& path) noexcept {
  struct stat st;
  if (::lstat(path.c_str(), &st) != 0) return false;
  return (st.st_flags & SF_DATALESS) != 0;
}

void evictUbiquitousItem(const std::filesystem::path&) {
  // The Objective-C eviction call is not reachable from this C++ library; the caller falls back
  // to the command-line tool, which does the same work.
  throw CloudServiceError("The cloud document service could not be reached");
}


}  // namespace kestrel::platform
