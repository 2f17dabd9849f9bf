// The administrator command text of the system's script language, shared by every platform.
#include "core/system/process/AdminPrompt.h"

#include "core/base/Text.h"

namespace kestrel::platform {

std::string doShellScript(std::string_view command, std::string_view prompt) {
  return "do shell script " + Text::scriptQuote(command) + " with administrator privileges with prompt " +
         Text::scriptQuote(prompt);
}

}  // namespace kestrel::platform
