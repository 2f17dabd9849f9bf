// User notifications on macOS: osascript "display notification".
#include "core/system/process/Notification.h"

#include "core/system/process/Shell.h"

namespace kestrel::platform {

void postNotification(const std::string& title, const std::string& body) {
  (void)Shell::run("osascript", {"-e", notificationScript(title, body)}, 10);  // best effort
}

}  // namespace kestrel::platform
