// The notification script text, shared by every platform.
#include "core/platform/Notification.h"

namespace kestrel::platform {
namespace {

std::string escape(const std::string& s) {
  std::string out;
  for (char c : s) {
    if (c == '\\') out += "\\\\";
    else if (c == '"') out += "\\\"";
    else out += c;
  }
  return out;
}

}  // namespace

std::string notificationScript(const std::string& title, const std::string& body) {
  return "display notification \"" + escape(body) + "\" with title \"" + escape(title) + "\"";
}

}  // namespace kestrel::platform
