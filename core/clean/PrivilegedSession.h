// Privileged session: one root helper per app session, driven over two named pipes, and the
// one-shot fallback (AdminRunner) when no session can be had.
#pragma once

#include "core/system/Paths.h"
#include "core/system/Services.h"
#include "core/system/process/Shell.h"

#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kestrel {

class PrivilegedSession {
 public:
  struct Operation {
    enum class Kind { kill, bootout, remove, maintenance, purge };
    enum class Script { periodicDaily, periodicWeekly, periodicMonthly, rebuildSpotlight, flushDNS };

    Kind kind = Kind::purge;
    int32_t pid = 0;
    int32_t signal = 0;
    std::string plist;
    std::vector<std::string> paths;
    Script script = Script::periodicDaily;

    static Operation kill(int32_t pid, int32_t signal) { return {Kind::kill, pid, signal, {}, {}, {}}; }
    static Operation bootout(std::string plist) { return {Kind::bootout, 0, 0, std::move(plist), {}, {}}; }
    static Operation remove(std::vector<std::string> paths) { return {Kind::remove, 0, 0, {}, std::move(paths), {}}; }
    static Operation maintenance(Script s) { return {Kind::maintenance, 0, 0, {}, {}, s}; }
    static Operation purge() { return {}; }

    // The command words after the token ("KILL 9 123", "RM <b64> <b64>", …).
    std::vector<std::string> words() const;
    // Seconds to wait for the helper's reply.
    double replyTimeout() const;
  };

  // Prompts through `services.adminPrompt` (the system's administrator prompt by default).
  explicit PrivilegedSession(Paths paths, const Services& services = {});
  ~PrivilegedSession();  // ends a running session
  PrivilegedSession(const PrivilegedSession&) = delete;
  PrivilegedSession& operator=(const PrivilegedSession&) = delete;

  // The process-wide session for this home.
  static PrivilegedSession& shared(const Paths& paths);

  // The one entry point for privileged work. Uses the running session, (re)starting it once when
  // it is not running or gives no reply; without a session, the operation's one-shot fallback.
  // Success exactly when the reply begins with "OK". The session token never appears in results.
  Shell::Result run(const Operation& op);
  // True when a session is running and answers PING within 2 seconds.
  bool isActive();
  // Sends QUIT (3 s), removes the session folder, forgets the session.
  void end();

  // The running session's folder, if any (for inspection and tests).
  std::optional<std::filesystem::path> folder() const;
  // One administrator command with its own prompt ("orvo Kestrel: " + prompt), 300 s.
  Shell::Result oneShot(const std::string& command, const std::string& prompt);

 private:
  bool start();
  std::optional<std::string> send(const std::string& line, double timeout);
  Shell::Result fallback(const Operation& op);
  void discardFolder();
  std::string scrub(std::string text) const;

  Paths paths_;
  std::function<Shell::Result(const std::string&, const std::string&, double)> prompt_;
  mutable std::mutex lock_;
  std::optional<std::filesystem::path> dir_;
  std::string token_;
  bool started_ = false;
};

std::string_view wireName(PrivilegedSession::Operation::Script s);

// Batch removal with administrator rights: boots out system launch daemons' plists first, then
// removes every path with one RM (one password prompt for the whole batch).
namespace AdminRunner {
Shell::Result oneShot(PrivilegedSession& session, const std::string& command, const std::string& prompt);
Shell::Result remove(PrivilegedSession& session, const std::vector<std::string>& paths);
}  // namespace AdminRunner

// A fresh token: `length` characters from "0123456789abcdef", from the system's random source.
std::string randomHexToken(size_t length = 32);

}  // namespace kestrel
