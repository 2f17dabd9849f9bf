// The safety policy's fixed lists: folders never removed themselves, protected personal data,
// system locations and the allowed locations outside the home folder.
#pragma once

#include "core/system/fs/TopLevelFolders.h"

#include <array>
#include <string_view>

namespace kestrel::ProtectedLists {

// The top-level folders (kHomeTopLevel, kAbsoluteTopLevel) are the safe remover's own refusals
// too, so they live with it in the system layer.
using TopLevelFolders::kAbsoluteTopLevel;
using TopLevelFolders::kHomeTopLevel;


// Protected personal data, relative to the home folder: the path and everything overlapping it.
// The system's own support folder and launch agent are protected the same way (SafetyPolicy adds
// them from Paths).
inline constexpr std::array<std::string_view, 23> kHomeBlocked = {
    "Library/Keychains", "Library/Messages", "Library/Mail", "Library/Calendars",
    "Library/Application Support/AddressBook", "Library/Application Support/CallHistoryDB",
    "Library/Application Support/MobileSync/Backup/.lock", "Library/Safari", "Library/Accounts",
    "Library/Cookies/Cookies.binarycookies", "Library/Group Containers/group.com.apple.notes",
    "Library/Containers/com.apple.Notes", "Library/Photos", "Library/Autosave Information",
    ".ssh",
    ".gnupg", ".aws", ".kube", ".config/gcloud", ".docker/config.json", ".zshrc", ".bashrc", ".gitconfig"};

// System locations: never touched, at or under any of these.
inline constexpr std::array<std::string_view, 17> kSystemLocations = {
    "/System",         "/bin",          "/sbin",           "/usr",           "/etc",    "/var",
    "/private/etc",    "/private/var/db", "/private/var/vm", "/Library/Apple", "/Library/Keychains",
    "/Library/Security", "/cores",      "/dev",            "/Volumes",       "/Network", "/opt/homebrew/bin"};

// Allowed locations outside the home folder: strictly inside one of these (roots themselves refused).
inline constexpr std::array<std::string_view, 13> kAllowedOutsideHome = {
    "/Applications",          "/Library/Application Support", "/Library/Caches",
    "/Library/LaunchAgents",  "/Library/LaunchDaemons",       "/Library/PrivilegedHelperTools",
    "/Library/Preferences",   "/Library/Logs",                "/Library/Internet Plug-Ins",
    "/Library/Audio/Plug-Ins", "/Library/Extensions",         "/Library/Frameworks",
    "/Library/Receipts"};

}  // namespace kestrel::ProtectedLists
