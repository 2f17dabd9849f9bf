// The location rows: resolving a row's base and pattern, and visiting what it finds.
#include "core/scan/scanners/Locations.h"

#include "core/system/fs/FileStat.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstring>
#include <vector>

namespace kestrel::scanners {
namespace {

std::vector<std::string_view> components(std::string_view pattern) {
  std::vector<std::string_view> out;
  while (!pattern.empty()) {
    const size_t slash = pattern.find('/');
    out.push_back(pattern.substr(0, slash));
    if (slash == std::string_view::npos) break;
    pattern.remove_prefix(slash + 1);
  }
  return out;
}

bool applies(On on, Layout layout) {
  return on == On::both || (on == On::macos) == (layout == Layout::macos);
}

void visitSelf(const ScanContext& context, CleanCategory category, const fs::path& path, const Location& row,
               std::string_view match, const std::function<void(const Found&)>& visit) {
  context.report(category, path.string());
  fs::path realParent;
  UniqueFd parent = context.openFolder(path.parent_path(), &realParent);
  if (!parent) return;
  Child child;
  child.name = path.filename().string();
  child.path = path;
  child.realPath = realParent / child.name;
  child.parentFd = parent.get();
  child.hasStatus = ::fstatat(parent.get(), child.name.c_str(), &child.status, AT_SYMLINK_NOFOLLOW) == 0;
  if (!child.hasStatus) return;  // missing or unreadable: nothing to offer
  visit(Found{row, child, match});
}

void resolve(const ScanContext& context, CleanCategory category, const Location& row, const fs::path& folder,
             std::span<const std::string_view> rest, std::string_view match,
             const std::function<void(const Found&)>& visit) {
  if (context.isCancelled()) return;
  if (rest.empty()) {
    switch (row.shape) {
      case Shape::self:
        visitSelf(context, category, folder, row, match, visit);
        return;
      case Shape::children:
        forEachChild(context, category, folder, [&](const Child& child) {
          if (!row.accept || row.accept(child)) visit(Found{row, child, match});
        });
        return;
      case Shape::taggedChildren:
        forEachChild(context, category, folder, [&](const Child& child) {
          if (child.name[0] != '.' && child.isDirectory() && holdsCacheDirTag(child))
            visit(Found{row, child, match});
        });
        return;
    }
    return;
  }
  if (rest.front() != "*") {
    resolve(context, category, row, folder / fs::path(rest.front()), rest.subspan(1), match, visit);
    return;
  }
  std::vector<std::string> names;
  forEachChild(context, category, folder, [&](const Child& child) {
    if (child.name[0] != '.' && child.isDirectory()) names.push_back(child.name);
  });
  for (const auto& name : names) {
    resolve(context, category, row, folder / name, rest.subspan(1), match.empty() ? std::string_view(name) : match,
            visit);
  }
}

}  // namespace

fs::path baseFolder(const Paths& paths, Base base) {
  switch (base) {
    case Base::home: return paths.home();
    case Base::library: return paths.library();
    case Base::cache: return paths.cacheHome();
    case Base::config: return paths.configHome();
    case Base::data: return paths.dataHome();
    case Base::state: return paths.stateHome();
    case Base::downloads: return paths.downloadsDir();
    case Base::desktop: return paths.desktopDir();
    case Base::homeTrash: return paths.homeTrashDir();
    case Base::system: return paths.systemRoot();
    case Base::systemCrash: return paths.systemCrashDir();
  }
  return paths.home();
}

std::string Found::title() const {
  if (row.shape != Shape::self) return child.name;
  if (match.empty()) return row.suffix.empty() ? child.name : std::string(row.suffix);
  return row.suffix.empty() ? std::string(match) : std::string(match) + " — " + std::string(row.suffix);
}

void forEachLocation(const ScanContext& context, CleanCategory category, std::span<const Location> rows,
                     const std::function<void(const Found&)>& visit) {
  for (const auto& row : rows) {
    if (context.isCancelled()) return;
    if (!applies(row.on, context.paths.layout())) continue;
    const auto parts = components(row.pattern);
    resolve(context, category, row, baseFolder(context.paths, row.base), parts, {}, visit);
  }
}

bool holdsCacheDirTag(const Child& folder) {
  UniqueFd dir(platform::openDirectoryAt(folder.parentFd, folder.name.c_str()));
  return dir && holdsCacheDirTag(dir.get());
}

bool holdsCacheDirTag(int folderFd) {
  static constexpr std::string_view kSignature = "Signature: 8a477f597d28d172789f06886806bc55";
  UniqueFd tag(::openat(folderFd, "CACHEDIR.TAG", O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  if (!tag) return false;
  char head[kSignature.size()];
  size_t got = 0;
  while (got < sizeof head) {
    const ssize_t r = ::read(tag.get(), head + got, sizeof head - got);
    if (r <= 0) break;
    got += static_cast<size_t>(r);
  }
  return got == sizeof head && std::string_view(head, got) == kSignature;
}

}  // namespace kestrel::scanners
