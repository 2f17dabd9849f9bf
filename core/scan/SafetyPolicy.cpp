// Safety policy: normalisation, link resolution and the ordered checks that decide every removal.
#include "core/scan/SafetyPolicy.h"

#include "core/clean/CloudFiles.h"
#include "core/platform/PathRules.h"
#include "core/scan/ProtectedLists.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

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

// Removes "." and ".." lexically (".." at the root stays at the root) and doubled slashes.
std::string removeDotSegments(std::string_view path) {
  const bool absolute = !path.empty() && path.front() == '/';
  std::vector<std::string> kept;
  for (auto& c : splitComponents(path)) {
    if (c == ".") continue;
    if (c == "..") {
      if (!kept.empty()) kept.pop_back();
      continue;
    }
    kept.push_back(std::move(c));
  }
  std::string out = absolute ? "/" : "";
  for (size_t i = 0; i < kept.size(); ++i) {
    if (i > 0) out += '/';
    out += kept[i];
  }
  return out;
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

bool accessWritable(const std::string& path) {
  return ::faccessat(AT_FDCWD, path.c_str(), W_OK, AT_EACCESS) == 0;
}

}  // namespace

bool isAtOrUnder(std::string_view a, std::string_view b) {
  if (a == b) return true;
  if (b.empty()) return false;
  if (b.back() == '/') return a.size() > b.size() && a.compare(0, b.size(), b) == 0;
  return a.size() > b.size() && a.compare(0, b.size(), b) == 0 && a[b.size()] == '/';
}

bool overlaps(std::string_view a, std::string_view b) { return isAtOrUnder(a, b) || isAtOrUnder(b, a); }

PolicyProbes defaultPolicyProbes() {
  return PolicyProbes{accessWritable, platform::standardizationStripsPrivate()};
}

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

SafetyPolicy::SafetyPolicy(Paths paths, const std::vector<std::string>& userProtected, PolicyProbes probes)
    : paths_(std::move(paths)), probes_(std::move(probes)) {
  if (!probes_.isWritable) probes_.isWritable = accessWritable;
  home_ = removeDotSegments(paths_.home().string());
  resolvedHome_ = resolveLinks(home_);
  for (const auto& e : userProtected) userProtected_.push_back(normalize(e, paths_.home(), probes_.stripPrivate));
  for (auto rel : ProtectedLists::kHomeTopLevel) topLevel_.push_back(joinHome(home_, rel));
  for (auto abs : ProtectedLists::kAbsoluteTopLevel) topLevel_.emplace_back(abs);
  for (auto rel : ProtectedLists::kHomeBlocked) homeBlocked_.push_back(joinHome(home_, rel));
}

bool SafetyPolicy::isUserWritable(const std::string& path) const {
  const std::string parent = parentOf(path);
  if (parent.empty() || !probes_.isWritable(parent)) return false;
  return probes_.isWritable(path);
}

Verdict SafetyPolicy::check(const std::string& path) const { return check(path, nullptr); }

std::vector<Verdict> SafetyPolicy::checkAll(const std::vector<std::string>& paths) const {
  std::unordered_map<std::string, std::string> resolvedParents;
  std::vector<Verdict> out;
  out.reserve(paths.size());
  for (const auto& p : paths) out.push_back(check(p, &resolvedParents));
  return out;
}

Verdict SafetyPolicy::check(const std::string& path, std::unordered_map<std::string, std::string>* memo) const {
  const std::string p = normalize(path, paths_.home(), probes_.stripPrivate);
  if (p.empty() || p.front() != '/') return Verdict::blocked("Not an absolute path");
  // Without a real home folder everything would count as "inside home".
  if (home_ == "/") return Verdict::blocked("No home folder");
  for (const auto& t : topLevel_)
    if (p == t) return Verdict::blocked("Top-level folder");
  for (const auto& e : userProtected_)
    if (overlaps(p, e)) return Verdict::blocked("Protected by your rules (" + e + ")");
  for (const auto& e : homeBlocked_)
    if (overlaps(p, e)) return Verdict::blocked("Protected personal data");
  if (p.find(".photoslibrary") != std::string::npos) return Verdict::blocked("Photos library");

  // The last component is never resolved: a link is removed as a link, never followed.
  const std::string parent = parentOf(p);
  const std::string lastName = p.substr(p.rfind('/') + 1);
  std::string resolvedParent;
  if (!memo) {
    resolvedParent = resolveLinks(parent);
  } else if (auto it = memo->find(parent); it != memo->end()) {
    resolvedParent = it->second;
  } else {
    resolvedParent = resolveLinks(parent);
    memo->emplace(parent, resolvedParent);
  }
  const std::string resolvedItem = resolvedParent == "/" ? "/" + lastName : resolvedParent + "/" + lastName;
  const bool insideHome = isAtOrUnder(p, home_);
  const bool staysHome = isAtOrUnder(resolvedItem, home_) || isAtOrUnder(resolvedItem, resolvedHome_);
  if (insideHome) {
    if (!staysHome) return Verdict::blocked("Symlinked folder leads outside your home folder");
    if (CloudFiles::isSynced(p, fs::path(home_)))
      return Verdict::syncedCloud(CloudFiles::providerName(p, fs::path(home_)));
    return Verdict::allowed();
  }

  for (const std::string* candidate : {&p, &resolvedItem}) {
    if (candidate == &resolvedItem && resolvedItem == p) break;
    for (auto root : ProtectedLists::kSystemLocations)
      if (isAtOrUnder(*candidate, root)) return Verdict::blocked("System location");
  }
  bool allowedPlace = false;
  for (auto root : ProtectedLists::kAllowedOutsideHome)
    if (p != root && isAtOrUnder(p, root)) allowedPlace = true;
  if (!allowedPlace) return Verdict::blocked("Outside allowed locations");
  if (p.rfind("/Applications/", 0) == 0 && isUserWritable(p)) return Verdict::allowed();
  return Verdict::needsAdmin();
}

}  // namespace kestrel
