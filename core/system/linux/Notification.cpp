// User notifications on Linux: notify-send (libnotify) when it is installed.
#include "core/system/process/Notification.h"

#include "core/system/process/Shell.h"

namespace kestrel::platform {

void postNotification(const std::string& title, const std::string& body) {
  if (!Shell::which("notify-send")) return;  // no notification service: nothing to tell
  (void)Shell::run("notify-send", {"--app-name=orvo Kestrel", "--", title, body}, 10);
}

}  // namespace kestrel::platform
