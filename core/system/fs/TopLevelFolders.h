// The folders that are never removed themselves (their contents may be): the safe remover refuses
// them by identity and the safety policy by path.
#pragma once

#include <array>
#include <string_view>

namespace kestrel::TopLevelFolders {

// Top-level folders relative to the home folder ("" is the home folder itself): the folder itself
// is refused, its contents are not.
inline constexpr std::array<std::string_view, 22> kHomeTopLevel = {
    "", "Library", "Library/Caches", "Library/Logs", "Library/Application Support", "Library/Containers",
    "Library/Group Containers", "Library/Preferences", "Library/Developer", "Library/Developer/Xcode",
    "Desktop", "Documents", "Downloads", "Library/Mobile Documents",
    "Library/Mobile Documents/com~apple~CloudDocs", "Library/CloudStorage", "Pictures", "Movies", "Music",
    "Public", "Applications", ".Trash"};

// Absolute top-level folders.
inline constexpr std::array<std::string_view, 7> kAbsoluteTopLevel = {"/",         "/Applications", "/Library",
                                                                      "/Users",    "/private",      "/tmp",
                                                                      "/opt"};

}  // namespace kestrel::TopLevelFolders
