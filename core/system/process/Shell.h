// Shell: runs an outside tool as a child process with a time-out; never through a shell interpreter.
#pragma once

// stdout and stderr are macros in <cstdio> on some platforms; include it first so every file
// sees the same expansion of the field names below.
#include <cstdio>

#include <optional>
#include <string>
#include <vector>

namespace kestrel {

class Shell {
 public:
  struct Result {
    int status = 0;  // the child's exit status; 127 when the tool was not found, 128 + signal when killed
    std::string stdout;
    std::string stderr;

    bool ok() const { return status == 0; }
  };

  // The tool's path: an absolute name when it is executable; otherwise the first PATH folder,
  // then the fixed tool folders, that holds an executable file of that name.
  static std::optional<std::string> which(const std::string& name);

  // Where the child runs: in a process group of its own (so a time-out stops whatever it started
  // too), or in the caller's, for a tool that must reach the terminal (a password prompt).
  enum class Group { own, caller };

  // Starts the tool with `arguments` (no shell re-parsing), drains both output streams
  // concurrently, and waits at most `timeout` seconds; then asks it (and, in its own group,
  // everything it started) to terminate and kills what is left 2 seconds later. Never throws: a
  // missing tool gives 127 and "<tool> not found", a hung one "<tool> timed out after <n>s",
  // output that is not UTF-8 "<tool> produced output that could not be read" (in stderr; the
  // unreadable stream is left empty).
  static Result run(const std::string& executable, const std::vector<std::string>& arguments,
                    double timeout = 60.0, Group group = Group::own);
};


}  // namespace kestrel
