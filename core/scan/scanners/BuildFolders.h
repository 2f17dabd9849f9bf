// Build folders of projects: the tools' markers, the rebuildable folders, and how a folder its tool
// made is told from a folder of sources that only shares its name.
#pragma once

#include "core/model/ScanModel.h"

#include <array>
#include <span>
#include <string_view>

namespace kestrel::scanners {

// Kinds of project, as bits: a build folder is recognised only beside the marker of its tool.
enum ProjectKind : unsigned {
  kNode = 1u << 0, kCargo = 1u << 1, kPython = 1u << 2, kGradle = 1u << 3, kMaven = 1u << 4,
  kGo = 1u << 5, kCMake = 1u << 6, kXcode = 1u << 7, kDart = 1u << 8, kElixir = 1u << 9,
  kHaskell = 1u << 10, kZig = 1u << 11, kPods = 1u << 12, kOther = 1u << 13,
};

// The kinds whose marker file `name` is (0: none).
unsigned markerKinds(std::string_view name);

// How to tell that a folder holds what its tool makes.
enum class Content : unsigned char {
  signs,     // one of `signs` stands at its top (or a valid CACHEDIR.TAG)
  bytecode,  // only compiled Python files (*.pyc, *.pyo)
  packages,  // only package folders (or links to them), scope folders of packages and hidden files
};

struct BuildFolder {
  std::string_view name;
  unsigned besides;  // marker kinds of which one must sit beside it; 0: anywhere inside a project
  Risk risk;
  std::string_view reason;
  Content content = Content::signs;
  // Names the tool puts at the folder's top: "x" exactly, "x*" by prefix, "*/x" inside any
  // folder at the top.
  std::array<std::string_view, 8> signs{};
};

// The rebuildable folders of a project, found by name (a CMake build folder by its cache file).
std::span<const BuildFolder> buildFolders();
const BuildFolder& cmakeBuildFolder();

// True when the open folder `fd` holds what `kind`'s tool makes and nothing that shows it to be
// sources: no project marker and no version-control folder at its top. Reads the folder's
// listing through `fd` (the caller rewinds it before reading it again).
bool madeByItsTool(int fd, const BuildFolder& kind);

}  // namespace kestrel::scanners
