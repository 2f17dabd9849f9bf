// The duplicate rule's reading: the folder listing and the side-by-side reading of equal lengths.
#include "core/shredder/DuplicateGroups.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <atomic>

#include "core/base/Workers.h"
#include "core/system/fs/FileHash.h"
#include "core/system/fs/FileStat.h"

namespace kestrel::DuplicateGroups {
namespace {

// Larger groups of one length are hashed file by file (one read buffer per member otherwise).
constexpr size_t kMaxGroupReadMembers = 64;

}  // namespace

std::vector<Listed> list(const std::filesystem::path& folder, int& dirFd) {
  std::vector<Listed> out;
  dirFd = platform::openDirectory(folder.c_str());
  if (dirFd < 0) return out;
  const int listFd = ::dup(dirFd);
  DIR* dir = listFd >= 0 ? ::fdopendir(listFd) : nullptr;
  if (!dir) {
    if (listFd >= 0) ::close(listFd);
    return out;
  }
  while (const dirent* e = ::readdir(dir)) {
    const std::string name = e->d_name;
    if (name == "." || name == ".." || name == ".DS_Store" || name == ".localized") continue;
    Listed l;
    l.name = name;
    if (::fstatat(dirFd, name.c_str(), &l.st, AT_SYMLINK_NOFOLLOW) != 0) continue;
    l.modified = platform::modifiedTime(l.st);
    out.push_back(std::move(l));
  }
  ::closedir(dir);
  return out;
}

Reading readSideBySide(int dirFd, const std::vector<const Listed*>& candidates, HashCache& hashes) {
  std::map<int64_t, std::vector<const Listed*>> groups;
  for (const Listed* f : candidates) groups[f->st.st_size].push_back(f);
  std::erase_if(groups, [](const auto& g) { return g.second.size() < 2 || g.second.size() > kMaxGroupReadMembers; });
  std::vector<const std::vector<const Listed*>*> work;
  for (const auto& [size, members] : groups) work.push_back(&members);
  std::vector<std::vector<FileHash::GroupMember>> results(work.size());
  std::atomic<size_t> nextGroup{0};
  std::atomic<uint64_t> read{0};
  // Two readers: hashing and copying out of the page cache both cost processor time.
  auto reader = [&] {
    for (size_t g; (g = nextGroup.fetch_add(1)) < work.size();) {
      uint64_t bytes = 0;
      try {
        std::vector<const char*> names;
        std::vector<struct stat> expected;
        for (const Listed* m : *work[g]) {
          names.push_back(m->name.c_str());
          expected.push_back(m->st);
        }
        results[g] = FileHash::readGroup(dirFd, names, expected, &bytes);
      } catch (const std::bad_alloc&) {
        // no result: its files are hashed one by one by the caller
      }
      read += bytes;
    }
  };
  runOnWorkers(work.size() > 1 ? 2 : 1, reader);
  Reading out;
  out.bytesRead = read.load();
  for (size_t g = 0; g < work.size(); ++g) {
    const auto& members = *work[g];
    out.filesRead += members.size();
    for (size_t i = 0; i < results[g].size(); ++i) {
      if (!results[g][i].hash) continue;
      hashes.put(results[g][i].seen, *results[g][i].hash);
      out.proved[members[i]->name] = Proved{members[*results[g][i].sameAs]->name, results[g][i].seen};
    }
  }
  return out;
}

}  // namespace kestrel::DuplicateGroups
