// Build folders of projects: the table of rebuildable folders and the check of their contents.
#include "core/scan/scanners/BuildFolders.h"

#include "core/base/UniqueFd.h"
#include "core/scan/scanners/Locations.h"
#include "core/system/fs/FileStat.h"

#include <algorithm>
#include <optional>
#include <string>
#include <vector>

namespace kestrel::scanners {
namespace {

struct Marker {
  std::string_view name;
  unsigned kind;
};

// Files whose presence makes a folder a project.
constexpr Marker kMarkers[] = {
    {"package.json", kNode},        {"package-lock.json", kNode},  {"yarn.lock", kNode},
    {"pnpm-lock.yaml", kNode},      {"pnpm-workspace.yaml", kNode}, {"Cargo.toml", kCargo},
    {"pyproject.toml", kPython},    {"setup.py", kPython},          {"setup.cfg", kPython},
    {"requirements.txt", kPython},  {"Pipfile", kPython},           {"tox.ini", kPython},
    {"build.gradle", kGradle},      {"build.gradle.kts", kGradle},  {"settings.gradle", kGradle},
    {"settings.gradle.kts", kGradle}, {"pom.xml", kMaven},          {"go.mod", kGo},
    {"CMakeLists.txt", kCMake},     {"pubspec.yaml", kDart},        {"mix.exs", kElixir},
    {"stack.yaml", kHaskell},       {"build.zig", kZig},            {"Podfile", kPods},
    {"Package.swift", kOther},      {"Gemfile", kOther},            {"composer.json", kOther},
    {"deno.json", kOther},
};

// Version-control folders (a ".git" file too: worktrees and submodules).
constexpr std::string_view kVersionControl[] = {".git", ".hg", ".svn", ".jj", ".bzr"};

constexpr std::string_view kDependencies = "Installed dependencies; installing them again needs the network";
constexpr std::string_view kCompiled = "Build output; rebuilt by the next build, which may take minutes";
constexpr std::string_view kCache = "Build cache; rebuilt automatically when needed";
constexpr std::string_view kOutput = "Build output; rebuilt by the next build";
constexpr std::string_view kEnvironment = "Python environment; recreating it needs the network";

// Review where rebuilding needs the network or minutes (dependencies, environments, compiled
// output), safe for caches that refill as the tools run.
constexpr BuildFolder kBuildFolders[] = {
    {"node_modules", kNode, Risk::review, kDependencies, Content::packages, {}},
    {"target", kCargo | kMaven, Risk::review, kCompiled, Content::signs,
     {".rustc_info.json", "maven-status", "maven-archiver", "classes", "test-classes", "generated-sources"}},
    {"build", kGradle, Risk::review, kOutput, Content::signs,
     {"classes", "libs", "tmp", "generated", "intermediates", "outputs", "test-results", "kotlin"}},
    {".gradle", kGradle, Risk::safe, kCache, Content::signs,
     {"buildOutputCleanup", "file-system.probe", "vcs-1", "configuration-cache", "checksums"}},
    {".venv", 0, Risk::review, kEnvironment, Content::signs, {"pyvenv.cfg"}},
    {"venv", 0, Risk::review, kEnvironment, Content::signs, {"pyvenv.cfg"}},
    {"__pycache__", 0, Risk::safe, kCache, Content::bytecode, {}},
    {".pytest_cache", 0, Risk::safe, kCache, Content::signs, {"v"}},
    {".mypy_cache", 0, Risk::safe, kCache, Content::signs, {"3.*", "missing_stubs"}},
    {".tox", kPython, Risk::review, "Test environments; recreating them needs the network", Content::signs,
     {".pkg", "log", "distshare", "*/pyvenv.cfg"}},
    {".next", kNode, Risk::safe, kCache, Content::signs, {"BUILD_ID", "build-manifest.json", "cache", "server", "static"}},
    {".nuxt", kNode, Risk::safe, kCache, Content::signs, {"nuxt.d.ts", "dist", "manifest"}},
    {".dart_tool", kDart, Risk::safe, kCache, Content::signs, {"package_config.json", "package_config_subset"}},
    {"Pods", kPods | kXcode, Risk::review, kDependencies, Content::signs,
     {"Manifest.lock", "Pods.xcodeproj", "Target Support Files"}},
    {"_build", kElixir, Risk::review, kOutput, Content::signs, {"dev", "test", "prod"}},
    {".stack-work", kHaskell, Risk::review, kOutput, Content::signs, {"dist", "install", "stack.sqlite3"}},
    {"zig-cache", kZig, Risk::safe, kCache, Content::signs, {"o", "h", "z"}},
    {".zig-cache", kZig, Risk::safe, kCache, Content::signs, {"o", "h", "z"}},
};
constexpr BuildFolder kCMakeBuild{"", kCMake, Risk::review, kOutput, Content::signs, {"CMakeCache.txt"}};

struct Entry {
  std::string name;
  platform::EntryType type;
};

bool endsWith(std::string_view s, std::string_view suffix) {
  return s.size() > suffix.size() && s.substr(s.size() - suffix.size()) == suffix;
}

// The folder's entries with every type known (one status call where the listing does not say);
// nothing when it cannot be read.
std::optional<std::vector<Entry>> entriesOf(int fd) {
  std::vector<Entry> out;
  if (!platform::readDirectory(fd, [&](const char* n, platform::EntryType t) { out.push_back({n, t}); }))
    return std::nullopt;
  for (auto& e : out) {
    if (e.type != platform::EntryType::unknown) continue;
    platform::EntryStat st;
    if (platform::statAt(fd, e.name.c_str(), st, false)) e.type = st.type;
  }
  return out;
}

bool isPackageEntry(const Entry& e) {
  return e.type == platform::EntryType::directory || e.type == platform::EntryType::symlink;
}

// Every non-hidden entry a package folder or a link to one; a scope ("@scope") holds packages only.
bool holdsPackagesOnly(int fd, const std::vector<Entry>& entries) {
  for (const auto& e : entries) {
    if (e.name[0] == '.') continue;  // .bin, .package-lock.json, .pnpm, .modules.yaml, .cache
    if (!isPackageEntry(e)) return false;
    if (e.name[0] != '@' || e.type != platform::EntryType::directory) continue;
    UniqueFd scope(platform::openDirectoryAt(fd, e.name.c_str()));
    if (!scope) return false;
    const auto inside = entriesOf(scope.get());
    if (!inside || !std::all_of(inside->begin(), inside->end(), isPackageEntry)) return false;
  }
  return true;
}

bool holdsSign(int fd, const std::vector<Entry>& entries, std::string_view sign) {
  if (sign.rfind("*/", 0) == 0) {
    const std::string inner(sign.substr(2));
    for (const auto& e : entries) {
      if (e.type != platform::EntryType::directory) continue;
      UniqueFd child(platform::openDirectoryAt(fd, e.name.c_str()));
      platform::EntryStat st;
      if (child && platform::statAt(child.get(), inner.c_str(), st, false)) return true;
    }
    return false;
  }
  const bool prefix = !sign.empty() && sign.back() == '*';
  const std::string_view stem = prefix ? sign.substr(0, sign.size() - 1) : sign;
  return std::any_of(entries.begin(), entries.end(),
                     [&](const Entry& e) { return prefix ? e.name.rfind(stem, 0) == 0 : e.name == stem; });
}

}  // namespace

unsigned markerKinds(std::string_view name) {
  unsigned kinds = 0;
  for (const auto& m : kMarkers)
    if (m.name == name) kinds |= m.kind;
  return kinds;
}

std::span<const BuildFolder> buildFolders() { return kBuildFolders; }
const BuildFolder& cmakeBuildFolder() { return kCMakeBuild; }

bool madeByItsTool(int fd, const BuildFolder& kind) {
  const auto entries = entriesOf(fd);
  if (!entries) return false;
  // A folder holding a project or a repository of its own is sources, whatever its name.
  for (const auto& e : *entries) {
    if (markerKinds(e.name)) return false;
    if (std::find(std::begin(kVersionControl), std::end(kVersionControl), e.name) != std::end(kVersionControl))
      return false;
  }
  switch (kind.content) {
    case Content::bytecode:
      return std::all_of(entries->begin(), entries->end(), [](const Entry& e) {
        return e.type == platform::EntryType::regular && (endsWith(e.name, ".pyc") || endsWith(e.name, ".pyo"));
      });
    case Content::packages:
      return holdsPackagesOnly(fd, *entries);
    case Content::signs:
      if (holdsCacheDirTag(fd)) return true;
      return std::any_of(kind.signs.begin(), kind.signs.end(),
                         [&](std::string_view sign) { return !sign.empty() && holdsSign(fd, *entries, sign); });
  }
  return false;
}

}  // namespace kestrel::scanners
