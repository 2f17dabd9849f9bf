// Safety policy: normalisation, link resolution and the ordered checks that decide every removal.
#include "core/safety/SafetyPolicy.h"

#include "core/safety/CloudRoots.h"
#include "core/system/PathRules.h"
#include "core/system/fs/Trash.h"
#include "core/safety/ProtectedLists.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <deque>
#include <unordered_map>

namespace kestrel {
namespace {

// More link hops than this means a loop; the rest of the path is then left as written.
constexpr int kMaxLinkHops = 40;

std::vector<std::string> splitComponents(std::string_view path) {
  std::vector<std::string> out;
  size_t i = 0;
  while (i < path.size()) {
    while (i < path.size() && path[i] == '/') ++i;
    size_t j = i;
    while (j < path.size() && path[j] != '/') ++j;
    if (j > i) out.emplace_back(path.substr(i, j - i));
    i = j;
  }
  return out;
}

// The system's one lexical standardisation; a relative path also loses its leading ".." (a
// protected entry "../x" then protects every "x", the broader and so the safe reading).
std::string removeDotSegments(std::string_view path) {
  std::string out = standardizedPath(fs::path(std::string(path))).string();
  while (out == ".." || out.starts_with("../")) out.erase(0, out == ".." ? 2 : 3);
  return out == "." ? std::string() : out;
}

bool hasDotDot(std::string_view path) {
  for (const auto& c : splitComponents(path))
    if (c == "..") return true;
  return false;
}

bool reachable(const std::string& path) {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0;
}

// Drops a leading "/private" (and the automount prefixes) when what remains exists and is not one
// of the folders that also exist at the top level.
std::string stripPrivatePrefix(const std::string& path) {
  static constexpr std::string_view kPrefixes[] = {"/private/var/automount/", "/var/automount/", "/private/"};
  static constexpr std::string_view kExcluded[] = {"/Applications", "/Library", "/System", "/Users",
                                                   "/Volumes",      "/bin",     "/cores",  "/dev",
                                                   "/opt",          "/private", "/sbin",   "/usr"};
  for (auto prefix : kPrefixes) {
    if (path.compare(0, prefix.size(), prefix) != 0) continue;
    const std::string rest = path.substr(prefix.size() - 1);
    for (auto ex : kExcluded)
      if (isAtOrUnder(rest, ex)) return path;
    return reachable(rest) ? rest : path;
  }
  return path;
}

std::string joinHome(const std::string& home, std::string_view rel) {
  if (rel.empty()) return home;
  return home == "/" ? "/" + std::string(rel) : home + "/" + std::string(rel);
}

std::string parentOf(const std::string& p) {
  const auto slash = p.rfind('/');
  if (slash == std::string::npos) return "";
  if (slash == 0) return "/";
  return p.substr(0, slash);
}

}  // namespace

bool isAtOrUnder(std::string_view a, std::string_view b) {
  if (a == b) return true;
  if (b.empty()) return false;
  if (b.back() == '/') return a.size() > b.size() && a.compare(0, b.size(), b) == 0;
  return a.size() > b.size() && a.compare(0, b.size(), b) == 0 && a[b.size()] == '/';
}

bool overlaps(std::string_view a, std::string_view b) { return isAtOrUnder(a, b) || isAtOrUnder(b, a); }

std::string SafetyPolicy::resolveLinks(const std::string& path) {
  if (path.empty() || path.front() != '/') return path;
  std::deque<std::string> pending;
  for (auto& c : splitComponents(path)) pending.push_back(std::move(c));
  std::string resolved = "/";
  int hops = 0;
  bool missing = false;  // below a missing component nothing can be a link
  const auto append = [&](const std::string& c) {
    if (resolved.back() != '/') resolved += '/';
    resolved += c;
  };
  while (!pending.empty()) {
    std::string c = std::move(pending.front());
    pending.pop_front();
    if (c == ".") continue;
    if (c == "..") {
      resolved = parentOf(resolved);
      if (resolved.empty()) resolved = "/";
      continue;
    }
    std::string candidate = resolved == "/" ? "/" + c : resolved + "/" + c;
    struct stat st;
    if (missing || ::lstat(candidate.c_str(), &st) != 0) {
      missing = true;
      append(c);
      continue;
    }
    if (!S_ISLNK(st.st_mode) || hops >= kMaxLinkHops) {
      resolved = std::move(candidate);
      continue;
    }
    ++hops;
    char buf[PATH_MAX];
    const ssize_t n = ::readlink(candidate.c_str(), buf, sizeof buf - 1);
    if (n <= 0) {
      resolved = std::move(candidate);
      continue;
    }
    const std::string target(buf, static_cast<size_t>(n));
    auto parts = splitComponents(target);
    pending.insert(pending.begin(), parts.begin(), parts.end());
    if (target.front() == '/') resolved = "/";
  }
  return resolved;
}

std::string SafetyPolicy::normalize(const std::string& path, const fs::path& home, bool stripPrivate) {
  std::string p = path;
  if (!p.empty() && p.front() == '~') p = home.string() + p.substr(1);
  // Like the platform, ".." is first resolved through the file system, so that "link/.." means
  // the link target's parent; only a path with a missing component is reduced as text.
  if (!p.empty() && p.front() == '/' && hasDotDot(p)) {
    if (char* real = ::realpath(p.c_str(), nullptr)) {
      p = real;
      std::free(real);
    }
  }
  p = removeDotSegments(p);
  if (stripPrivate) p = stripPrivatePrefix(p);
  while (p.size() >= 2 && p.back() == '/') p.pop_back();
  return p;
}

SafetyPolicy::SafetyPolicy(Paths paths, const std::vector<std::string>& userProtected, const Services& services)
    : paths_(std::move(paths)),
      isWritable_(services.withDefaults().isWritable),
      stripPrivate_(platform::standardizationStripsPrivate()) {
  home_ = removeDotSegments(paths_.home().string());
  for (const auto& e : userProtected) {
    if (!e.empty() && e.front() != '/' && e.front() != '~') {
      // A relative entry names no place of its own; it protects every path holding it as whole
      // components, and the same path below the home folder (the likely meaning).
      auto parts = splitComponents(removeDotSegments(e));
      if (!parts.empty()) {
        relativeProtected_.push_back(e);
        relativeComponents_.push_back(std::move(parts));
        continue;
      }
    }
    // An empty entry reads as "/" once the separator is appended: it protects everything, which is
    // also the safe reading of a typo.
    const std::string n = e.empty() ? "/" : normalize(e, paths_.home(), stripPrivate_);
    userProtected_.push_back(n.empty() ? "/" : n);
    userProtectedResolved_.push_back(resolveLinks(userProtected_.back()));
  }
  for (auto rel : ProtectedLists::kHomeTopLevel) topLevel_.push_back(joinHome(home_, rel));
  for (auto abs : ProtectedLists::kAbsoluteTopLevel) topLevel_.emplace_back(abs);
  for (auto rel : ProtectedLists::kHomeBlocked) homeBlocked_.push_back(joinHome(home_, rel));
  // The system's own data and launch agent.
  homeBlocked_.push_back(paths_.supportDir().string());
  if (paths_.layout() == Layout::linux) {
    for (const auto& own : {paths_.configDir(), paths_.stateDir(), paths_.dataDir()})
      homeBlocked_.push_back(own.string());
    for (const auto& files : platform::otherVolumeTrashes(paths_)) otherVolumeTrashes_.push_back(files.string());
    systemCrashDir_ = normalize(paths_.systemCrashDir().string(), paths_.home());
  }
  homeBlocked_.push_back(paths_.launchAgentPlist().string());
}

bool SafetyPolicy::isUserWritable(const std::string& path) const {
  const std::string parent = parentOf(path);
  if (parent.empty() || !isWritable_(parent)) return false;
  return isWritable_(path);
}

Verdict SafetyPolicy::check(const std::string& path) const { return check(path, nullptr); }

std::vector<Verdict> SafetyPolicy::checkAll(const std::vector<std::string>& paths) const {
  Memo memo;
  std::vector<Verdict> out;
  out.reserve(paths.size());
  for (const auto& p : paths) out.push_back(check(p, &memo));
  return out;
}

std::optional<Verdict> SafetyPolicy::judgeText(const std::string& p) const {
  for (const auto& t : topLevel_)
    if (p == t) return Verdict::blocked("Top-level folder");
  for (size_t i = 0; i < userProtected_.size(); ++i) {
    if (overlaps(p, userProtected_[i]) || overlaps(p, userProtectedResolved_[i]))
      return Verdict::blocked("Protected by your rules (" + userProtected_[i] + ")");
  }
  if (!relativeComponents_.empty()) {
    const auto parts = splitComponents(p);
    for (size_t i = 0; i < relativeComponents_.size(); ++i) {
      const auto& r = relativeComponents_[i];
      const bool holdsIt = std::search(parts.begin(), parts.end(), r.begin(), r.end()) != parts.end();
      std::string underHome = home_;
      for (const auto& c : r) underHome = joinHome(underHome, c);
      if (holdsIt || isAtOrUnder(underHome, p))
        return Verdict::blocked("Protected by your rules (" + relativeProtected_[i] + ")");
    }
  }
  for (const auto& e : homeBlocked_)
    if (overlaps(p, e)) return Verdict::blocked("Protected personal data");
  if (p.find(".photoslibrary") != std::string::npos) return Verdict::blocked("Photos library");
  return std::nullopt;
}

std::optional<std::string> SafetyPolicy::protectedReason(const std::string& real) const {
  if (auto v = judgeText(real)) return v->text;
  for (auto root : ProtectedLists::kSystemLocations)
    if (isAtOrUnder(real, root)) return std::string("System location");
  return std::nullopt;
}

SafetyPolicy::RootPlace SafetyPolicy::followRoot(const std::string& folder) const {
  const std::string f = normalize(folder, paths_.home(), stripPrivate_);
  if (f == home_ || !isAtOrUnder(f, home_)) return {f, {}};
  const auto parts = splitComponents(std::string_view(f).substr(home_ == "/" ? 1 : home_.size()));
  std::string current = home_;
  int links = 0;
  for (size_t i = 0; i < parts.size(); ++i) {
    const std::string candidate = joinHome(current, parts[i]);
    struct stat st;
    if (::lstat(candidate.c_str(), &st) != 0) {
      // Nothing there yet (a restore may create it): the rest stays as written.
      for (size_t k = i; k < parts.size(); ++k) current = joinHome(current, parts[k]);
      return {current, {}};
    }
    if (!S_ISLNK(st.st_mode)) {
      current = candidate;
      continue;
    }
    const auto outsideText = [&](const std::string& where) {
      return isAtOrUnder(where, home_) ? std::string("Symlinked folder is not yours")
                                       : std::string("Symlinked folder leads outside your home folder");
    };
    char* resolved = ++links > kMaxLinkHops ? nullptr : ::realpath(candidate.c_str(), nullptr);
    if (!resolved) return {std::nullopt, "Symlinked folder leads outside your home folder"};
    const std::string target = resolved;
    std::free(resolved);
    struct stat targetStat;
    const uid_t me = ::geteuid();
    if (st.st_uid != me || ::stat(target.c_str(), &targetStat) != 0 || !S_ISDIR(targetStat.st_mode) ||
        targetStat.st_uid != me) {
      return {std::nullopt, outsideText(target)};
    }
    if (auto why = protectedReason(target))
      return {std::nullopt, "Symlinked folder leads to a protected location (" + *why + ")"};
    current = target;
  }
  return {current, {}};
}

SafetyPolicy::RootPlace SafetyPolicy::followRootMemo(const std::string& folder, Memo* memo) const {
  if (!memo) return followRoot(folder);
  if (auto it = memo->find(folder); it != memo->end()) return it->second;
  return memo->emplace(folder, followRoot(folder)).first->second;
}

std::optional<std::string> SafetyPolicy::placeOf(const std::string& path) const {
  const std::string p = normalize(path, paths_.home(), stripPrivate_);
  if (p.empty() || p.front() != '/' || p == "/") return std::nullopt;
  const std::string parent = parentOf(p);
  const std::string name = p.substr(p.rfind('/') + 1);
  if (isAtOrUnder(p, home_)) {
    const RootPlace place = followRoot(parent);
    if (!place.real) return std::nullopt;
    return joinHome(*place.real, name);
  }
  const std::string resolvedItem = joinHome(resolveLinks(parent), name);
  if (resolvedItem != p && isAtOrUnder(resolvedItem, home_)) return placeOf(resolvedItem);
  return p;
}

std::optional<Verdict> SafetyPolicy::judgeCrashReport(const std::string& p) const {
  if (systemCrashDir_.empty() || parentOf(p) != systemCrashDir_) return std::nullopt;
  const std::string name = p.substr(p.rfind('/') + 1);
  constexpr std::string_view kSuffix = ".crash";
  if (name.size() <= kSuffix.size() || !name.ends_with(kSuffix) || name.front() == '.') return std::nullopt;
  // The folder is shared by every user (sticky): another user's report, a link or anything but a
  // plain file stays where it is.
  struct stat st;
  if (::lstat(p.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) return std::nullopt;
  if (st.st_uid == ::geteuid()) return Verdict::allowed();
  if (st.st_uid == 0) return Verdict::needsAdmin();
  return std::nullopt;
}

Verdict SafetyPolicy::check(const std::string& path, Memo* memo) const {
  const std::string p = normalize(path, paths_.home(), stripPrivate_);
  if (p.empty() || p.front() != '/') return Verdict::blocked("Not an absolute path");
  // Without a real home folder everything would count as "inside home".
  if (home_ == "/") return Verdict::blocked("No home folder");
  if (auto v = judgeText(p)) return *v;

  // The last component is never resolved: a link is removed as a link, never followed.
  const std::string parent = parentOf(p);
  const std::string lastName = p.substr(p.rfind('/') + 1);
  if (isAtOrUnder(p, home_)) {
    const RootPlace place = followRootMemo(parent, memo);
    if (!place.real) return Verdict::blocked(place.refusal);
    const std::string real = joinHome(*place.real, lastName);
    if (real != p) {
      // Reached through a link: what is really there is judged as well.
      if (auto v = judgeText(real)) return *v;
      for (auto root : ProtectedLists::kSystemLocations)
        if (isAtOrUnder(real, root)) return Verdict::blocked("System location");
    }
    if (CloudRoots::isSynced(p, fs::path(home_)))
      return Verdict::syncedCloud(CloudRoots::providerName(p, fs::path(home_)));
    return Verdict::allowed();
  }

  const std::string resolvedItem = joinHome(resolveLinks(parent), lastName);
  // A spelling of a place inside the home folder through a link (the home reached another way).
  if (resolvedItem != p && isAtOrUnder(resolvedItem, home_)) return check(resolvedItem, memo);
  // Reached without a link: the crash folder's reports are the one exception inside /var.
  if (resolvedItem == p)
    if (auto v = judgeCrashReport(p)) return *v;
  for (const std::string* candidate : {&p, &resolvedItem}) {
    if (candidate == &resolvedItem && resolvedItem == p) break;
    for (auto root : ProtectedLists::kSystemLocations)
      if (isAtOrUnder(*candidate, root)) return Verdict::blocked("System location");
  }
  // What the user trashed on another volume is theirs to remove, like their home Trash.
  for (const auto& files : otherVolumeTrashes_)
    if (p != files && isAtOrUnder(p, files) && resolvedItem == p) return Verdict::allowed();
  bool allowedPlace = false;
  for (auto root : ProtectedLists::kAllowedOutsideHome)
    if (p != root && isAtOrUnder(p, root)) allowedPlace = true;
  if (!allowedPlace) return Verdict::blocked("Outside allowed locations");
  if (p.rfind("/Applications/", 0) == 0 && isUserWritable(p)) return Verdict::allowed();
  return Verdict::needsAdmin();
}

}  // namespace kestrel
