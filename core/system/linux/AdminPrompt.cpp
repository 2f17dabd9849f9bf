// The administrator prompt on Linux: polkit's pkexec running the command through /bin/sh.
#include "core/system/process/AdminPrompt.h"

namespace kestrel::platform {

Shell::Result runAsAdministrator(const std::string& shellCommand, const std::string&, double timeout) {
  // In the caller's process group: a prompt in a terminal must be able to read it.
  return Shell::run("pkexec", {"/bin/sh", "-c", shellCommand}, timeout, Shell::Group::caller);
}

}  // namespace kestrel::platform
