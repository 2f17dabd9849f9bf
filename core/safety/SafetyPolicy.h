// Safety policy: the one gate every removal passes, deciding allowed, admin, cloud or blocked.
#pragma once

#include "core/system/Paths.h"
#include "core/system/Services.h"

#include <functional>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

namespace kestrel {

struct Verdict {
  enum class Kind { syncedCloud, blocked, allowed, needsAdmin };
  Kind kind = Kind::allowed;
  std::string text;  // syncedCloud: the provider's name; blocked: the reason shown to the user

  static Verdict syncedCloud(std::string provider) { return {Kind::syncedCloud, std::move(provider)}; }
  static Verdict blocked(std::string reason) { return {Kind::blocked, std::move(reason)}; }
  static Verdict allowed() { return {Kind::allowed, {}}; }
  static Verdict needsAdmin() { return {Kind::needsAdmin, {}}; }

  bool isBlocked() const { return kind == Kind::blocked; }
  // Unattended runs act only on allowed and needsAdmin paths (never on cloud folders).
  bool safeForAutomation() const { return kind == Kind::allowed || kind == Kind::needsAdmin; }
  bool operator==(const Verdict&) const = default;
};


class SafetyPolicy {
 public:
  // Normalises every user-protected entry and keeps them in the given order.
  SafetyPolicy(Paths paths, const std::vector<std::string>& userProtected,
               const Services& services = {});

  // The verdict for `path`; never fails (a path that does not exist is judged as the text it is).
  // Immutable: may run on any thread, concurrently.
  Verdict check(const std::string& path) const;
  // The verdicts of many paths at once, resolving each parent folder's links only once within
  // the call (nothing is remembered after it returns).
  std::vector<Verdict> checkAll(const std::vector<std::string>& paths) const;
  // True when the parent folder and then the item itself are writable by the current user.
  bool isUserWritable(const std::string& path) const;

  // How a folder inside the home folder is really reached. A symbolic link on the way is followed
  // only when the link is the user's own and leads to a folder of the user's that lies inside no
  // protected location (judged on its real path); the items below it are then judged as if the
  // real folder stood where the link is. `real` is the folder with every such link resolved
  // (missing components stay as written); empty, with the reason, when a link is refused. Folders
  // outside the home folder come back as written.
  struct RootPlace {
    std::optional<std::string> real;
    std::string refusal;
  };
  RootPlace followRoot(const std::string& folder) const;
  // Where a removal of `path` must act: its parent folder's real place (as followRoot finds it)
  // joined with its own name, never resolving the name itself; a path outside the home folder
  // that a link leads into it is taken at its real place too. Nothing when a link is refused.
  std::optional<std::string> placeOf(const std::string& path) const;

  // The canonical form used for every comparison: a leading "~" becomes the home folder, "." and
  // ".." are removed (through the file system when every component exists), doubled and trailing
  // slashes dropped ("/" stays "/").
  static std::string normalize(const std::string& path, const fs::path& home, bool stripPrivate = false);
  // Every symbolic link of `path` resolved component by component; a component that does not
  // exist (and everything after it) stays as written.
  static std::string resolveLinks(const std::string& path);

  const std::vector<std::string>& userProtected() const { return userProtected_; }
  // The user's entries that are neither absolute nor "~" paths, as written.
  const std::vector<std::string>& relativeProtected() const { return relativeProtected_; }

 private:
  using Memo = std::unordered_map<std::string, RootPlace>;
  Verdict check(const std::string& path, Memo* memo) const;
  // Steps that judge a path by its text alone: top-level folders, the user's rules, personal data,
  // photo libraries. Nothing when none of them refuses it.
  std::optional<Verdict> judgeText(const std::string& p) const;
  // The user's rules and the fixed lists that a followed link's target must stay out of.
  std::optional<std::string> protectedReason(const std::string& real) const;
  RootPlace followRootMemo(const std::string& folder, Memo* memo) const;

  Paths paths_;
  std::string home_;
  std::vector<std::string> userProtected_;
  std::vector<std::string> userProtectedResolved_;  // the same entries with their links resolved
  std::vector<std::string> relativeProtected_;
  std::vector<std::vector<std::string>> relativeComponents_;
  std::vector<std::string> topLevel_;
  std::vector<std::string> homeBlocked_;
  std::vector<std::string> otherVolumeTrashes_;  // Linux: the user's Trash folders on other volumes
  std::string systemCrashDir_;                    // Linux: the crash handler's report folder
  // The verdict for a report directly in the crash folder: the user's own file allowed, root's
  // needing administrator rights; nothing for any other path.
  std::optional<Verdict> judgeCrashReport(const std::string& p) const;
  std::function<bool(const std::string&)> isWritable_;
  bool stripPrivate_;  // the platform's standardisation drops a leading "/private" (macOS)
};

// a equals b, or lies below it.
bool isAtOrUnder(std::string_view a, std::string_view b);
// Either path is at or under the other.
bool overlaps(std::string_view a, std::string_view b);

}  // namespace kestrel
