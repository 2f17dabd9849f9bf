// The duplicate rule's reading: files of one folder listed, and files of one length read side by
// side to prove which hold the same bytes.
#pragma once

#include "core/base/Dates.h"
#include "core/shredder/HashCache.h"

#include <sys/stat.h>

#include <cstdint>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

namespace kestrel::DuplicateGroups {

// One entry of a watched folder, as listed (never through a link).
struct Listed {
  std::string name;
  struct stat st;
  Date modified;
};

// The entries of the folder (not ".DS_Store" or ".localized"); `dirFd` becomes the folder's open
// descriptor (negative when it cannot be opened, and then nothing is listed).
std::vector<Listed> list(const std::filesystem::path& folder, int& dirFd);

// Files proved to hold the same bytes: each member named with the first file of its group holding
// those bytes, and its status when its reading ended (to tell later that it is still that file).
struct Proved {
  std::string sameAs;
  struct stat seen {};
};
struct Reading {
  std::map<std::string, Proved> proved;  // by name
  uint64_t filesRead = 0, bytesRead = 0;
};

// Reads the `candidates` of the open folder `dirFd` that share their length with another, each
// once, side by side on two threads (groups larger than 64 members are left to be hashed file by
// file); every hash read goes into `hashes`.
Reading readSideBySide(int dirFd, const std::vector<const Listed*>& candidates, HashCache& hashes);

}  // namespace kestrel::DuplicateGroups
