// The operating system's administrator prompt: runs one shell command as root after the user
// authorises it.
#pragma once

#include "core/storage/Shell.h"

#include <string>

namespace kestrel::platform {

// macOS: "osascript -e 'do shell script … with administrator privileges with prompt …'".
// Linux: "pkexec /bin/sh -c <command>" (polkit shows its own prompt; `prompt` is not shown).
// A missing tool gives status 127 and "<tool> not found".
Shell::Result runAsAdministrator(const std::string& shellCommand, const std::string& prompt, double timeout);

}  // namespace kestrel::platform
