// The administrator prompt on macOS: osascript's "do shell script … with administrator privileges".
#include "core/system/process/AdminPrompt.h"


namespace kestrel::platform {

Shell::Result runAsAdministrator(const std::string& shellCommand, const std::string& prompt, double timeout) {
  return Shell::run("osascript", {"-e", doShellScript(shellCommand, prompt)}, timeout);
}

}  // namespace kestrel::platform
