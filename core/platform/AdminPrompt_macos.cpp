// The administrator prompt on macOS: osascript's "do shell script … with administrator privileges".
#include "core/platform/AdminPrompt.h"

#include "core/clean/AdminCommand.h"

namespace kestrel::platform {

Shell::Result runAsAdministrator(const std::string& shellCommand, const std::string& prompt, double timeout) {
  return Shell::run("osascript", {"-e", AdminCommand::doShellScript(shellCommand, prompt)}, timeout);
}

}  // namespace kestrel::platform
