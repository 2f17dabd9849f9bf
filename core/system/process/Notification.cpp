// The notification script text, shared by every platform.
#include "core/system/process/Notification.h"

#include "core/base/Text.h"

namespace kestrel::platform {

std::string notificationScript(const std::string& title, const std::string& body) {
  return "display notification " + Text::scriptQuote(body) + " with title " + Text::scriptQuote(title);
}

}  // namespace kestrel::platform
