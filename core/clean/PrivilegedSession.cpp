// Privileged session: start (folder, pipes, prompt, handshake), send, run with restart and
// fallback, and the batch removal of AdminRunner.
#include "core/clean/PrivilegedSession.h"
#include "core/system/fs/StoreFile.h"

#include "core/base/Text.h"
#include "core/clean/AdminCommand.h"
#include "core/system/process/AdminPrompt.h"
#include "core/store/JSONStore.h"
#include "core/base/UniqueFd.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <map>
#include <thread>

namespace kestrel {

namespace embedded {
extern const std::string_view helperScript;
}

namespace {

using Clock = std::chrono::steady_clock;
using Kind = PrivilegedSession::Operation::Kind;
using Script = PrivilegedSession::Operation::Script;

// Opens a pipe of the session without blocking and checks it is a FIFO owned by this user.
UniqueFd openPipe(const std::filesystem::path& p, int mode) {
  UniqueFd fd(::open(p.c_str(), mode | O_NONBLOCK | O_CLOEXEC | O_NOFOLLOW));
  if (!fd) return fd;
  struct stat st;
  if (::fstat(fd.get(), &st) != 0 || !S_ISFIFO(st.st_mode) || st.st_uid != ::geteuid()) return UniqueFd();
  return fd;
}

std::string trim(const std::string& s) {
  const auto b = s.find_first_not_of(" \t\r\n");
  if (b == std::string::npos) return "";
  return s.substr(b, s.find_last_not_of(" \t\r\n") - b + 1);
}


std::string maintenanceCommand(Script s) {
  switch (s) {
    case Script::periodicDaily: return "/usr/sbin/periodic daily";
    case Script::periodicWeekly: return "/usr/sbin/periodic weekly";
    case Script::periodicMonthly: return "/usr/sbin/periodic monthly";
    case Script::rebuildSpotlight: return "/usr/bin/mdutil -E /";
    case Script::flushDNS: return "/usr/bin/dscacheutil -flushcache; /usr/bin/killall -HUP mDNSResponder";
  }
  return "";
}

Shell::Result fromReply(const std::string& reply) {
  Shell::Result r;
  r.status = reply.rfind("OK", 0) == 0 ? 0 : 1;
  r.stdout = reply;
  if (!r.ok()) r.stderr = reply;
  return r;
}

}  // namespace

std::string_view wireName(Script s) {
  switch (s) {
    case Script::periodicDaily: return "periodic-daily";
    case Script::periodicWeekly: return "periodic-weekly";
    case Script::periodicMonthly: return "periodic-monthly";
    case Script::rebuildSpotlight: return "rebuild-spotlight";
    case Script::flushDNS: return "flush-dns";
  }
  return "";
}

std::vector<std::string> PrivilegedSession::Operation::words() const {
  switch (kind) {
    case Kind::kill: return {"KILL", std::to_string(signal), std::to_string(pid)};
    case Kind::bootout: return {"BOOTOUT", Text::base64(plist)};
    case Kind::remove: {
      std::vector<std::string> w{"RM"};
      for (const auto& p : paths) w.push_back(Text::base64(p));
      return w;
    }
    case Kind::maintenance: return {"SCRIPT", std::string(wireName(script))};
    case Kind::purge: return {"PURGE"};
  }
  return {};
}

double PrivilegedSession::Operation::replyTimeout() const {
  switch (kind) {
    case Kind::kill: return 20;
    case Kind::bootout: return 20;
    case Kind::remove: return 300;
    case Kind::maintenance: return 600;
    case Kind::purge: return 120;
  }
  return 20;
}

std::string randomHexToken(size_t length) {
  static constexpr char kHex[] = "0123456789abcdef";
  std::string out;
  UniqueFd fd(::open("/dev/urandom", O_RDONLY | O_CLOEXEC));
  unsigned char buf[64];
  while (out.size() < length) {
    const ssize_t n = fd ? ::read(fd.get(), buf, sizeof buf) : -1;
    if (n <= 0) throw std::system_error(errno ? errno : EIO, std::generic_category(), "read /dev/urandom");
    for (ssize_t i = 0; i < n && out.size() < length; ++i) {
      // Two characters per byte keeps every character uniform.
      out += kHex[buf[i] >> 4];
      if (out.size() < length) out += kHex[buf[i] & 15];
    }
  }
  return out;
}

PrivilegedSession::PrivilegedSession(Paths paths, const Services& services)
    : paths_(std::move(paths)), prompt_(services.withDefaults().adminPrompt) {}

PrivilegedSession::~PrivilegedSession() { end(); }

PrivilegedSession& PrivilegedSession::shared(const Paths& paths) {
  static std::mutex m;
  static std::map<std::string, std::unique_ptr<PrivilegedSession>> sessions;
  std::lock_guard g(m);
  auto& s = sessions[paths.home().string()];
  if (!s) s = std::make_unique<PrivilegedSession>(paths);
  return *s;
}

std::optional<std::filesystem::path> PrivilegedSession::folder() const {
  std::lock_guard g(lock_);
  return dir_;
}

std::string PrivilegedSession::scrub(std::string text) const {
  if (token_.empty()) return text;
  for (size_t pos; (pos = text.find(token_)) != std::string::npos;) text.replace(pos, token_.size(), "<token>");
  return text;
}

void PrivilegedSession::discardFolder() {
  // The helper removes its folder itself on the way out; this catches a session that never got a
  // helper (a failed or cancelled prompt), whose folder is still ours.
  if (dir_) {
    std::error_code ec;
    for (const std::string_view name :
         {Paths::kPrivilegedCommandPipe, Paths::kPrivilegedReplyPipe, Paths::kPrivilegedHelperName})
      std::filesystem::remove(*dir_ / name, ec);
    std::filesystem::remove(*dir_, ec);  // only succeeds when empty
  }
  dir_.reset();
  token_.clear();
  started_ = false;
}

bool PrivilegedSession::start() {
  discardFolder();
  try {
    dir_ = paths_.privilegedSessionDir(randomHexToken(16));
    std::filesystem::create_directories(dir_->parent_path());
    if (::mkdir(dir_->c_str(), 0700) != 0) {
      dir_.reset();
      return false;
    }
    token_ = randomHexToken(32);
    if (::mkfifo((*dir_ / Paths::kPrivilegedCommandPipe).c_str(), 0600) != 0 ||
        ::mkfifo((*dir_ / Paths::kPrivilegedReplyPipe).c_str(), 0600) != 0) {
      discardFolder();
      return false;
    }
    // Written for inspection only: root runs the text embedded in the command, never this file.
    StoreFile::writeAtomically(embedded::helperScript, *dir_ / Paths::kPrivilegedHelperName);
    ::chmod((*dir_ / Paths::kPrivilegedHelperName).c_str(), 0700);
  } catch (const std::exception&) {
    discardFolder();
    return false;
  }
  const std::string command =
      AdminCommand::helperLaunch(embedded::helperScript, dir_->string(), token_, static_cast<long>(::getpid()));
  const Shell::Result r = prompt_(command, std::string(AdminCommand::kSessionPrompt), 120);
  if (!r.ok()) {
    discardFolder();
    return false;
  }
  for (int attempt = 0; attempt < 40; ++attempt) {
    if (send(token_ + " PING", 1.0)) {
      started_ = true;
      return true;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  discardFolder();
  return false;
}

std::optional<std::string> PrivilegedSession::send(const std::string& line, double timeout) {
  if (!dir_) return std::nullopt;
  UniqueFd cmd = openPipe(*dir_ / Paths::kPrivilegedCommandPipe,
                          O_WRONLY);  // fails without a reader: the helper is gone
  if (!cmd) return std::nullopt;
  UniqueFd out = openPipe(*dir_ / Paths::kPrivilegedReplyPipe, O_RDONLY);
  if (!out) return std::nullopt;
  char buf[8192];
  // A stale reply of an earlier, timed-out command must never be taken as this one's answer.
  while (::read(out.get(), buf, sizeof buf) > 0) {
  }
  const int flags = ::fcntl(cmd.get(), F_GETFL);
  ::fcntl(cmd.get(), F_SETFL, flags & ~O_NONBLOCK);
  const std::string data = line + "\n";
  size_t off = 0;
  while (off < data.size()) {
    const ssize_t n = ::write(cmd.get(), data.data() + off, data.size() - off);
    if (n < 0) {
      if (errno == EINTR) continue;
      return std::nullopt;
    }
    off += static_cast<size_t>(n);
  }
  cmd.reset();
  std::string reply;
  const auto deadline = Clock::now() + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(timeout));
  // The helper holds its end of "out" open for as long as it lives, so end-of-file means it is
  // gone (killed, or its children that inherited the pipe have exited too): stop waiting then
  // rather than for the whole time the operation may take.
  while (Clock::now() < deadline) {
    pollfd p{out.get(), POLLIN, 0};
    if (::poll(&p, 1, 200) < 0 && errno != EINTR) break;
    const ssize_t n = ::read(out.get(), buf, sizeof buf);
    if (n > 0) {
      reply.append(buf, static_cast<size_t>(n));
      if (reply.find('\n') != std::string::npos) break;
    } else if (n == 0 || (errno != EAGAIN && errno != EINTR)) {
      break;
    }
  }
  reply = trim(Utf8::displayText(reply.substr(0, reply.find('\n'))));
  if (reply.empty()) return std::nullopt;
  return reply;
}

Shell::Result PrivilegedSession::run(const Operation& op) {
  std::lock_guard g(lock_);
  auto lineFor = [&] {
    std::string line = token_;
    for (const auto& w : op.words()) line += " " + w;
    return line;
  };
  if (started_) {
    if (auto reply = send(lineFor(), op.replyTimeout())) return fromReply(scrub(*reply));
    started_ = false;
  }
  if (start()) {
    if (auto reply = send(lineFor(), op.replyTimeout())) return fromReply(scrub(*reply));
    started_ = false;
    Shell::Result r;
    r.status = 1;
    r.stderr = "The privileged helper did not answer";
    return r;
  }
  return fallback(op);
}

Shell::Result PrivilegedSession::oneShot(const std::string& command, const std::string& prompt) {
  Shell::Result r = prompt_(command, "orvo Kestrel: " + prompt, 300);
  r.stdout = scrub(std::move(r.stdout));
  r.stderr = scrub(std::move(r.stderr));
  return r;
}

Shell::Result PrivilegedSession::fallback(const Operation& op) {
  switch (op.kind) {
    case Kind::kill:
      return oneShot("/bin/kill -" + std::to_string(op.signal) + " " + std::to_string(op.pid), "quit an app");
    case Kind::bootout:
      return oneShot("/bin/launchctl bootout system " + Text::shellQuote(op.plist), "stop a background item");
    case Kind::maintenance: return oneShot(maintenanceCommand(op.script), "run maintenance");
    case Kind::purge: return oneShot("/usr/sbin/purge", "free inactive memory");
    case Kind::remove: {
      // The same path checks as the session's helper, run once as root.
      Shell::Result r = oneShot(AdminCommand::helperOnce(embedded::helperScript, op.words()), "remove protected files");
      if (r.ok()) {
        const std::string reply = trim(r.stdout);
        return fromReply(reply.empty() ? "ERR no reply" : reply);
      }
      return r;
    }
  }
  return {};
}

bool PrivilegedSession::isActive() {
  std::lock_guard g(lock_);
  if (!started_) return false;
  auto reply = send(token_ + " PING", 2.0);
  return reply && reply->rfind("OK", 0) == 0;
}

void PrivilegedSession::end() {
  std::lock_guard g(lock_);
  if (started_) send(token_ + " QUIT", 3.0);
  discardFolder();
}

namespace AdminRunner {

Shell::Result oneShot(PrivilegedSession& session, const std::string& command, const std::string& prompt) {
  return session.oneShot(command, prompt);
}

Shell::Result remove(PrivilegedSession& session, const std::vector<std::string>& paths) {
  if (paths.empty()) return {};
  for (const auto& p : paths) {
    if (p.rfind("/Library/LaunchDaemons/", 0) == 0 && p.size() > 6 && p.compare(p.size() - 6, 6, ".plist") == 0)
      session.run(PrivilegedSession::Operation::bootout(p));  // a running job would come back
  }
  return session.run(PrivilegedSession::Operation::remove(paths));
}

}  // namespace AdminRunner
}  // namespace kestrel
