// FakeTools: recording fake executables for tests of code that runs outside tools.
#include "tests/support/FakeTools.h"

#include <sys/stat.h>

#include <cstdlib>
#include <fstream>

namespace kestrel::test {
namespace {

// Single-quoted for bash.
std::string quote(const std::string& s) {
  std::string out = "'";
  for (char c : s) {
    if (c == '\'') out += "'\\''";
    else out += c;
  }
  return out + "'";
}

}  // namespace

FakeTools::FakeTools(const fs::path& folder) : bin_(folder / "bin") {
  fs::create_directories(bin_);
  const char* old = std::getenv("PATH");
  path_ = std::make_unique<ScopedEnv>("PATH", bin_.string() + ":" + (old ? old : "/usr/bin:/bin"));
}

void FakeTools::script(const std::string& name, const std::string& body) {
  const fs::path p = bin_ / name;
  std::ofstream f(p, std::ios::trunc);
  f << "#!/bin/bash\n" << body << "\n";
  f.close();
  ::chmod(p.c_str(), 0755);
}

void FakeTools::tool(const std::string& name, const std::string& out, int status, const std::string& err) {
  // Each argument is written followed by a NUL, each call ends with a line feed after a NUL marker.
  const std::string log = quote((bin_ / (name + ".calls")).string());
  script(name, "for a in \"$@\"; do printf '%s\\0' \"$a\" >> " + log + "; done\nprintf '\\x01\\n' >> " + log +
                   "\nprintf '%s' " + quote(out) + "\nprintf '%s' " + quote(err) + " >&2\nexit " +
                   std::to_string(status));
}

std::vector<std::vector<std::string>> FakeTools::calls(const std::string& name) const {
  const std::string text = readText(bin_ / (name + ".calls"));
  std::vector<std::vector<std::string>> out;
  std::vector<std::string> current;
  std::string arg;
  for (size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (c == '\x01' && i + 1 < text.size() && text[i + 1] == '\n') {
      out.push_back(current);
      current.clear();
      ++i;
    } else if (c == '\0') {
      current.push_back(arg);
      arg.clear();
    } else {
      arg += c;
    }
  }
  return out;
}

}  // namespace kestrel::test
