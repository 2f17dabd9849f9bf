// Administrator command texts and their quoting.
#include "core/clean/AdminCommand.h"

#include "core/base/Text.h"

namespace kestrel::AdminCommand {

std::string helperLaunch(std::string_view script, std::string_view dir, std::string_view token, long appPid) {
  return "/usr/bin/nohup /bin/bash -c " + Text::shellQuote(script) + " helper " + Text::shellQuote(dir) + " " +
         std::string(token) + " " + std::to_string(appPid) + " >/dev/null 2>&1 &";
}

std::string helperOnce(std::string_view script, const std::vector<std::string>& words) {
  std::string cmd = "/bin/bash -c " + Text::shellQuote(script) + " helper --once";
  for (const auto& w : words) cmd += " " + Text::shellQuote(w);
  return cmd;
}

}  // namespace kestrel::AdminCommand
