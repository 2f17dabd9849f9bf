// User notifications: the platform's notification centre, best effort.
#pragma once

#include <string>

namespace kestrel::platform {

// macOS: osascript "display notification"; Linux: notify-send when installed. A missing tool or
// a failure is ignored. 10-second time-out.
void postNotification(const std::string& title, const std::string& body);

// The notification script text with title and body escaped (backslashes doubled, then double
// quotes escaped).
std::string notificationScript(const std::string& title, const std::string& body);

}  // namespace kestrel::platform
