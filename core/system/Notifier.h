// Notifier: posts a user notification (scheduled runs, the shredder); never fails.
#pragma once

#include "core/system/Notification.h"

#include <string>

namespace kestrel::Notifier {

inline void post(const std::string& title, const std::string& body) { platform::postNotification(title, body); }

}  // namespace kestrel::Notifier
