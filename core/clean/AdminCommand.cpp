// Administrator command texts and their quoting.
#include "core/clean/AdminCommand.h"

namespace kestrel::AdminCommand {

std::string shellQuote(std::string_view s) {
  std::string out = "'";
  for (char c : s) {
    if (c == '\'') out += "'\\''";
    else out += c;
  }
  return out + "'";
}

std::string scriptQuote(std::string_view s) {
  std::string out = "\"";
  for (char c : s) {
    if (c == '\\' || c == '"') out += '\\';
    out += c;
  }
  return out + "\"";
}

std::string doShellScript(std::string_view command, std::string_view prompt) {
  return "do shell script " + scriptQuote(command) + " with administrator privileges with prompt " +
         scriptQuote(prompt);
}

std::string helperLaunch(std::string_view script, std::string_view dir, std::string_view token, long appPid) {
  return "/usr/bin/nohup /bin/bash -c " + shellQuote(script) + " helper " + shellQuote(dir) + " " +
         std::string(token) + " " + std::to_string(appPid) + " >/dev/null 2>&1 &";
}

std::string helperOnce(std::string_view script, const std::vector<std::string>& words) {
  std::string cmd = "/bin/bash -c " + shellQuote(script) + " helper --once";
  for (const auto& w : words) cmd += " " + shellQuote(w);
  return cmd;
}

std::string base64(std::string_view s) {
  static constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string out;
  out.reserve((s.size() + 2) / 3 * 4);
  size_t i = 0;
  for (; i + 2 < s.size(); i += 3) {
    const uint32_t n = (static_cast<uint8_t>(s[i]) << 16) | (static_cast<uint8_t>(s[i + 1]) << 8) | static_cast<uint8_t>(s[i + 2]);
    out += kAlphabet[(n >> 18) & 63];
    out += kAlphabet[(n >> 12) & 63];
    out += kAlphabet[(n >> 6) & 63];
    out += kAlphabet[n & 63];
  }
  if (i + 1 == s.size()) {
    const uint32_t n = static_cast<uint8_t>(s[i]) << 16;
    out += kAlphabet[(n >> 18) & 63];
    out += kAlphabet[(n >> 12) & 63];
    out += "==";
  } else if (i + 2 == s.size()) {
    const uint32_t n = (static_cast<uint8_t>(s[i]) << 16) | (static_cast<uint8_t>(s[i + 1]) << 8);
    out += kAlphabet[(n >> 18) & 63];
    out += kAlphabet[(n >> 12) & 63];
    out += kAlphabet[(n >> 6) & 63];
    out += '=';
  }
  return out;
}

}  // namespace kestrel::AdminCommand
