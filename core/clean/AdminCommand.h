// Texts of administrator commands: shell quoting, the prompt's script text, the helper launch line.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace kestrel::AdminCommand {

// The prompt shown once per privileged session.
inline constexpr std::string_view kSessionPrompt = "orvo Kestrel needs permission once for this session.";

// `s` in single quotes for a POSIX shell ('\'' for each quote inside); safe for every byte.
std::string shellQuote(std::string_view s);
// `s` as a double-quoted string literal of the system's script language (backslashes doubled,
// double quotes escaped).
std::string scriptQuote(std::string_view s);
// "do shell script <command> with administrator privileges with prompt <prompt>".
std::string doShellScript(std::string_view command, std::string_view prompt);
// The command that starts the root helper in the background: the script text is passed inline to
// bash (root never runs a file the user could change), with the session folder, token and app pid.
std::string helperLaunch(std::string_view script, std::string_view dir, std::string_view token, long appPid);
// The command that runs one helper operation without a session; the reply is its output.
std::string helperOnce(std::string_view script, const std::vector<std::string>& words);
// Standard Base64 of the bytes of `s`.
std::string base64(std::string_view s);

}  // namespace kestrel::AdminCommand
