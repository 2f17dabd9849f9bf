// FakeTools: executables in <scratch>/bin put first on PATH; each prints canned output, exits
// with a chosen status and records the arguments it received.
#pragma once

#include "tests/support/ScratchHome.h"

#include <memory>
#include <string>
#include <vector>

namespace kestrel::test {

class FakeTools {
 public:
  explicit FakeTools(const fs::path& folder);

  // A tool that appends its arguments to its log, prints `out` / `err` and exits with `status`.
  void tool(const std::string& name, const std::string& out = "", int status = 0, const std::string& err = "");
  // A tool with a script body of the test's own (bash).
  void script(const std::string& name, const std::string& body);
  // Every call's arguments, one vector per call, in call order.
  std::vector<std::vector<std::string>> calls(const std::string& name) const;

  const fs::path& bin() const { return bin_; }

 private:
  fs::path bin_;
  std::unique_ptr<ScopedEnv> path_;
};

}  // namespace kestrel::test
