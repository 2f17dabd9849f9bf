// Texts of administrator commands: the prompt of a session and the helper's launch lines.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace kestrel::AdminCommand {

// The prompt shown once per privileged session.
inline constexpr std::string_view kSessionPrompt = "orvo Kestrel needs permission once for this session.";

// The command that starts the root helper in the background: the script text is passed inline to
// bash (root never runs a file the user could change), with the session folder, token and app pid.
std::string helperLaunch(std::string_view script, std::string_view dir, std::string_view token, long appPid);
// The command that runs one helper operation without a session; the reply is its output.
std::string helperOnce(std::string_view script, const std::vector<std::string>& words);

}  // namespace kestrel::AdminCommand
