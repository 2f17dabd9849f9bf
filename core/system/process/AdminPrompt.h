// The operating system's administrator prompt: runs one shell command as root after the user
// authorises it.
#pragma once

#include "core/system/process/Shell.h"

#include <string>
#include <string_view>

namespace kestrel::platform {

// macOS: "osascript -e 'do shell script … with administrator privileges with prompt …'".
// Linux: "pkexec /bin/sh -c <command>" (polkit shows its own prompt; `prompt` is not shown).
// A missing tool gives status 127 and "<tool> not found".
Shell::Result runAsAdministrator(const std::string& shellCommand, const std::string& prompt, double timeout);

// "do shell script <command> with administrator privileges with prompt <prompt>", both quoted
// for the script language: the text macOS's prompt runs (kept on every system for its tests).
std::string doShellScript(std::string_view command, std::string_view prompt);

}  // namespace kestrel::platform
