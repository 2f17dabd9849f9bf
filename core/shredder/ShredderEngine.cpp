// ShredderEngine: the duplicate index, the four rules, disposal and the debounced watch loop.
#include "core/shredder/ShredderEngine.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cctype>
#include <set>

#include "core/shredder/DuplicateGroups.h"
#include "core/shredder/ShredderStore.h"
#include "core/store/ConfigStore.h"
#include "core/store/JSONStore.h"
#include "core/system/fs/FS.h"
#include "core/system/fs/FileHash.h"
#include "core/system/fs/FileLock.h"
#include "core/system/fs/FileStat.h"
#include "core/system/fs/StoreFile.h"
#include "core/system/fs/Trash.h"
#include "core/system/Uuid.h"

namespace kestrel {
namespace {

using Clock = std::chrono::steady_clock;

constexpr int64_t kMinSettleSeconds = 4;
constexpr int64_t kMinDuplicateBytes = 4097;
constexpr std::array<std::string_view, 7> kPartialExtensions = {"download", "crdownload", "part", "partial",
                                                                "tmp",      "opdownload", "aria2"};
constexpr std::array<std::string_view, 3> kInstallerExtensions = {"dmg", "pkg", "mpkg"};
// Linux packages and installers people download and run once. Never ".AppImage": those are the
// programs themselves, and people run them from the Download folder.
constexpr std::array<std::string_view, 5> kLinuxInstallerExtensions = {"deb", "rpm", "snap", "flatpakref", "run"};

std::string lowerExtension(const std::string& name) {
  const fs::path ext = fs::path(name).extension();
  std::string e = ext.empty() ? std::string() : ext.string().substr(1);
  std::transform(e.begin(), e.end(), e.begin(), [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return e;
}

template <size_t N>
bool among(const std::array<std::string_view, N>& list, const std::string& value) {
  return std::find(list.begin(), list.end(), value) != list.end();
}

bool isScreenshotName(const std::string& name) {
  return name.rfind("Screenshot ", 0) == 0 || name.rfind("Screen Shot ", 0) == 0;
}

CleanCategory categoryOf(std::string_view rule) {
  if (rule == ShredRule::duplicate) return CleanCategory::duplicates;
  if (rule == ShredRule::installer) return CleanCategory::installers;
  if (rule == ShredRule::trash) return CleanCategory::trash;
  return CleanCategory::oldDownloads;
}

std::string expandHome(const std::string& folder, const fs::path& home) {
  if (folder == "~") return home.string();
  if (folder.rfind("~/", 0) == 0) return (home / folder.substr(2)).string();
  return folder;
}

bool lexists(const std::string& path) {
  struct stat st;
  return ::lstat(path.c_str(), &st) == 0;
}

}  // namespace

namespace {
using Listed = DuplicateGroups::Listed;
// How long a file has been what it is here: its modification time, then its status-change time.
std::pair<Date, Date> ageKey(const Listed& f) { return {f.modified, platform::changedTime(f.st)}; }
}  // namespace

ShredderEngine::ShredderEngine(Paths paths, AppConfig config, ShredderSettings settings, const Services& services)
    : paths_(std::move(paths)),
      config_(std::move(config)),
      services_(services.withDefaults()),
      settings_(std::move(settings)),
      history_(paths_),
      review_(paths_),
      policy_(paths_, config_.protectedPaths, services_),
      quarantine_(paths_, services_),
      audit_(paths_),
      remover_(paths_.home()),
      hashes_(paths_.shredderHashCacheFile()),
      index_(paths_.shredderIndexFile()) {
  // Departure from aging Trash items by their modification date: a years-old file trashed a
  // minute ago would be deleted for good at the next sweep, with no chance to take it back. The
  // Trash's own record of when the item arrived is used instead.
  arrivalDate = [paths = paths_](const fs::path& item) -> std::optional<Date> {
    if (paths.layout() == Layout::macos) return FS::addedToFolderDate(item);
    return platform::trashDeletionDate(item);
  };
  index_.load();
  hashes_.load();
}

ShredderEngine::~ShredderEngine() { stopWatching(); }

ShredderSettings ShredderEngine::settings() const {
  std::lock_guard<std::mutex> guard(settingsLock_);
  return settings_;
}

void ShredderEngine::setSettings(const ShredderSettings& settings) {
  std::lock_guard<std::mutex> guard(settingsLock_);
  settings_ = settings;
}

std::vector<fs::path> ShredderEngine::watchedURLs() const {
  std::vector<fs::path> out;
  for (const auto& folder : settings().folders) {
    fs::path p;
    // The default folders are the user's Download and Desktop folders wherever they are named.
    if (folder == "~/Downloads") p = paths_.downloadsDir();
    else if (folder == "~/Desktop") p = paths_.desktopDir();
    else p = expandHome(folder, paths_.home());
    if (!p.is_absolute()) continue;
    p = standardizedPath(p);
    if (FS::isDirectory(p)) out.push_back(p);
  }
  return out;
}

SweepResult ShredderEngine::sweep(Date now) {
  SweepResult result;
  std::lock_guard<std::mutex> guard(sweepLock_);
  const auto damage = refreshSettings();
  const ShredderSettings s = settings();
  if (!s.approved || !s.enabled) {
    result.status = SweepResult::Status::off;
    return result;
  }
  if (damage) {
    result.status = SweepResult::Status::damagedSettings;
    result.message = ConfigStore(paths_).damagedMessage(*damage);
    return result;
  }
  // Another process sweeping the same folders with other settings could dispose of the other
  // copy of a pair this sweep disposes of: sweeps take turns across processes.
  const auto lock = FileLock::acquire(paths_.shredderSweepLockFile(), lockWait);
  if (!lock) {
    result.status = SweepResult::Status::busy;
    result.message = lock.busy() ? std::string(ShredderBusy::kText)
                                 : "Cannot lock " + paths_.shredderSweepLockFile().string() + ": " +
                                       lock.error.message() + "; skipping.";
    return result;
  }
  // The index may have been changed by another process's sweep since it was read.
  index_.load();
  result.events = sweepLocked(now);
  return result;
}

std::vector<ShredEvent> ShredderEngine::sweepLocked(Date now) {
  ++sweeps_;
  settleAt_.reset();
  sweepThread_ = std::this_thread::get_id();
  std::vector<ShredEvent> events;
  auto take = [&](std::vector<ShredEvent> more) { events.insert(events.end(), more.begin(), more.end()); };
  for (const auto& folder : watchedURLs()) {
    take(dedupe(folder, now));
    take(installers(folder, now));
    take(screenshots(folder, now));
  }
  take(trash(now));
  sweepThread_ = std::thread::id();
  for (auto& [_, session] : sweepSessions_) quarantine_.close(session);
  sweepSessions_.clear();
  saveIndex();
  hashes_.save();
  if (settleAt_) noteSettle(*settleAt_);
  return events;
}

ShredderEngine::FileSeen ShredderEngine::seen(const fs::path& file) {
  FileSeen f;
  struct stat st;
  // Followed like the stores follow a final link when they read.
  if (::stat(file.c_str(), &st) != 0) return f;
  f.exists = true;
  f.dev = st.st_dev;
  f.ino = st.st_ino;
  f.size = st.st_size;
  f.modified = platform::modifiedTime(st);
  f.changed = platform::changedTime(st);
  return f;
}

void ShredderEngine::followSettingsFiles() {
  std::lock_guard<std::mutex> guard(seenLock_);
  following_ = true;
  settingsSeen_.reset();  // the first sweep reads both files afresh
}

std::optional<std::string> ShredderEngine::refreshSettings() {
  if (!following_) return std::nullopt;
  // Looked at before reading: a change after this look is seen by the next one.
  const SettingsSeen now{seen(paths_.configFile()), seen(paths_.shredderSettingsFile())};
  std::optional<SettingsSeen> before;
  {
    std::lock_guard<std::mutex> guard(seenLock_);
    before = settingsSeen_;
  }
  if (!before || now.config != before->config) {
    const ConfigStore store(paths_);
    auto loaded = store.loadChecked();
    if (loaded.damaged()) {
      settingsDamage_ = loaded.reason;
    } else {
      settingsDamage_.reset();
      config_ = loaded.value.value_or(AppConfig{});
      policy_ = SafetyPolicy(paths_, config_.protectedPaths, services_);
    }
  }
  if (!before || now.shredder != before->shredder) setSettings(ShredderStore(paths_).load());
  {
    std::lock_guard<std::mutex> guard(seenLock_);
    settingsSeen_ = now;
  }
  // The watched folders may have changed with the settings.
  if (watcher_) {
    const auto folders = foldersToWatch();
    if (folders != watchedNow_) {
      watchedNow_ = folders;
      watcher_->watch(folders, [this](const FolderWatcher::Change& c) { onFolderChange(c); });
    }
  }
  return settingsDamage_;
}

std::vector<fs::path> ShredderEngine::foldersToWatch() const {
  std::vector<fs::path> folders = watchedURLs();
  if (following_) folders.push_back(paths_.configDir());
  return folders;
}

void ShredderEngine::noteSettle(Date at) {
  std::lock_guard<std::mutex> guard(watchLock_);
  if (!watching_) return;
  const auto wait = std::chrono::duration_cast<Clock::duration>(at - services_.now());
  const Clock::time_point when = Clock::now() + std::max(wait, Clock::duration::zero());
  if (!due_ || when < *due_) {
    due_ = when;
    wake_.notify_all();
  }
}

// One folder's pass of the duplicate rule: the listing, the sizes that may have a twin and what
// the side-by-side reading proved.
struct ShredderEngine::DedupePass {
  fs::path folder;
  UniqueFd dirFd;
  ShredderSettings settings;
  Date now;
  int64_t settle = 0;
  std::vector<Listed> files;
  std::map<int64_t, int> sizeCount;  // of the files that qualify
  std::set<int64_t> indexedSizes;
  DuplicateGroups::Reading reading;
  std::vector<ShredCandidate> held;  // for the review queue, written once when the folder is done
  std::vector<ShredEvent> events;

  bool qualifies(const Listed& f) const {
    const int64_t size = f.st.st_size;
    return size >= kMinDuplicateBytes && size <= settings.maxAutoBytes() &&
           !among(kPartialExtensions, lowerExtension(f.name));
  }
  bool settled(const Listed& f) const { return now - f.modified > std::chrono::seconds(settle); }

  // Both files compared side by side in this sweep, and neither changed since.
  bool provedSame(const std::string& a, const std::string& b) const {
    if (fs::path(a).parent_path() != folder || fs::path(b).parent_path() != folder) return false;
    const auto& proved = reading.proved;
    const auto pa = proved.find(fs::path(a).filename().string()), pb = proved.find(fs::path(b).filename().string());
    if (pa == proved.end() || pb == proved.end() || pa->second.sameAs != pb->second.sameAs) return false;
    struct stat sa, sb;
    return ::fstatat(dirFd.get(), fs::path(a).filename().c_str(), &sa, AT_SYMLINK_NOFOLLOW) == 0 &&
           ::fstatat(dirFd.get(), fs::path(b).filename().c_str(), &sb, AT_SYMLINK_NOFOLLOW) == 0 &&
           FileHash::unchanged(pa->second.seen, sa) && FileHash::unchanged(pb->second.seen, sb);
  }
};

std::vector<ShredEvent> ShredderEngine::dedupe(const fs::path& folder, Date now) {
  DedupePass pass;
  pass.settings = settings();
  if (!pass.settings.dedupeDownloads) return {};
  pass.folder = folder;
  pass.now = now;
  pass.settle = std::max(pass.settings.settleSeconds, kMinSettleSeconds);
  int dirFd = -1;
  pass.files = DuplicateGroups::list(folder, dirFd);
  pass.dirFd = UniqueFd(dirFd);
  std::erase_if(pass.files, [](const Listed& l) { return !S_ISREG(l.st.st_mode); });
  // Oldest first: the copy you already had enters the index before the newcomer. A copy that
  // kept its original's date (cp -p, a download manager) ties on it; the one that came into the
  // folder later has the later status-change time.
  std::stable_sort(pass.files.begin(), pass.files.end(),
                   [](const Listed& a, const Listed& b) { return ageKey(a) < ageKey(b); });
  // Departure from hashing every file: only a file whose size another file in this folder or
  // in the index shares can have a twin, so only those are read (the result is the same).
  for (const auto& f : pass.files)
    if (pass.qualifies(f)) ++pass.sizeCount[f.st.st_size];
  pass.indexedSizes = index_.sizesIn(folder.string());
  // Files of one length are read side by side once: each gets its hash and the proof of which
  // others hold the same bytes. Files whose hash is remembered are not read again; they are
  // compared at disposal.
  std::vector<const Listed*> candidates;
  for (const auto& f : pass.files)
    if (pass.qualifies(f) && pass.settled(f) && pass.sizeCount[f.st.st_size] >= 2 && !hashes_.find(f.st))
      candidates.push_back(&f);
  pass.reading = DuplicateGroups::readSideBySide(pass.dirFd.get(), candidates, hashes_);
  bytesHashed_ += pass.reading.bytesRead;
  filesHashed_ += pass.reading.filesRead;
  for (const auto& f : pass.files) decideDuplicate(pass, f);
  review_.add(pass.held);
  return std::move(pass.events);
}

std::optional<uint64_t> ShredderEngine::hashOf(const DedupePass& pass, const Listed& f) {
  if (auto hash = hashes_.find(f.st)) return hash;
  uint64_t read = 0;
  const auto hash = FileHash::ofFileAt(pass.dirFd.get(), f.name.c_str(), &f.st, &read);
  bytesHashed_ += read;
  ++filesHashed_;
  if (hash) hashes_.put(f.st, *hash);
  return hash;
}

void ShredderEngine::decideDuplicate(DedupePass& pass, const Listed& f) {
  const ShredderSettings& s = pass.settings;
  if (among(kPartialExtensions, lowerExtension(f.name))) return;
  const fs::path path = pass.folder / f.name;
  if (!pass.settled(f)) {
    // Departure from waiting for the periodic sweep: a duplicate still settling gets one more
    // sweep at the moment it will have settled.
    if (pass.qualifies(f)) {
      const Date at = Dates::plusSeconds(f.modified, pass.settle + 1);
      if (!settleAt_ || at < *settleAt_) settleAt_ = at;
    }
    return;
  }
  const int64_t size = f.st.st_size;
  if (size < kMinDuplicateBytes || size > s.maxAutoBytes()) return;
  if (pass.sizeCount[size] < 2 && !pass.indexedSizes.count(size)) return;
  const auto hash = hashOf(pass, f);
  if (!hash) return;
  const std::string key = ShredIndex::key(pass.folder.string(), size, FileHash::text(*hash));
  const auto recorded = index_.find(key);
  if (!recorded || *recorded == path.string() || !lexists(*recorded)) return index_.set(key, path.string());
  struct stat recordedStat;
  if (::lstat(recorded->c_str(), &recordedStat) != 0) return;
  // Two names of one file: removing either frees nothing.
  if (recordedStat.st_dev == f.st.st_dev && recordedStat.st_ino == f.st.st_ino) return;
  const auto mine = ageKey(f), theirs = ageKey(Listed{*recorded, recordedStat, platform::modifiedTime(recordedStat)});
  // Of two copies exactly as old the one already recorded stays.
  const bool disposeRecorded = s.keepNewest ? mine > theirs : mine < theirs;
  const std::string disposePath = disposeRecorded ? *recorded : path.string();
  const std::string keptPath = disposeRecorded ? path.string() : *recorded;
  const std::string keptName = fs::path(keptPath).filename().string();
  if (std::find(s.ignoredPaths.begin(), s.ignoredPaths.end(), disposePath) != s.ignoredPaths.end()) return;
  if (s.isSkipped(disposePath)) {
    if (s.reviewSkipped) {
      pass.held.push_back(ShredCandidate{disposePath, keptPath, size, std::string(ShredRule::duplicate),
                                         "Identical to " + keptName + ", but ." + lowerExtension(disposePath) +
                                             " is on your skip list",
                                         pass.now});
    }
    return;
  }
  // The index remembers content as it was: the copy kept may have been edited since, and a 64-bit
  // hash is no proof. Only byte-for-byte equal files go; otherwise this file takes the entry.
  if (!twinHolds(disposePath, keptPath, &pass)) return index_.set(key, path.string());
  if (auto e = shred(disposePath, ShredRule::duplicate, "Byte-identical to " + keptName + ", which you already had",
                     keptPath, size, pass.now)) {
    pass.events.push_back(std::move(*e));
    index_.set(key, keptPath);
  }
}

bool ShredderEngine::twinHolds(const std::string& disposed, const std::string& kept, const DedupePass* pass) {
  struct stat sd, sk;
  if (::lstat(disposed.c_str(), &sd) != 0 || ::lstat(kept.c_str(), &sk) != 0) return false;
  if (!S_ISREG(sd.st_mode) || !S_ISREG(sk.st_mode)) return false;
  if (sd.st_dev == sk.st_dev && sd.st_ino == sk.st_ino) return false;
  if (pass && pass->provedSame(disposed, kept)) return true;
  uint64_t compared = 0;
  const bool same = FileHash::sameContent(disposed, kept, &compared);
  bytesCompared_ += compared;
  return same;
}

std::vector<ShredEvent> ShredderEngine::aged(const fs::path& folder, Date now, int64_t days, std::string_view rule,
                                             const std::function<bool(const std::string&)>& matches) {
  std::vector<ShredEvent> events;
  if (days < 1) return events;
  const ShredderSettings s = settings();
  const Date cutoff = Dates::minusDays(now, days);
  const std::string reason = rule == ShredRule::installer
                                 ? "Installer sitting unused for " + std::to_string(days) + "+ days"
                                 : "Screenshot older than " + std::to_string(days) + " days";
  int dirFdRaw = -1;
  const std::vector<Listed> children = DuplicateGroups::list(folder, dirFdRaw);
  const UniqueFd dirFd(dirFdRaw);
  for (const auto& c : children) {
    if (S_ISLNK(c.st.st_mode) || !matches(c.name)) continue;
    const fs::path path = folder / c.name;
    if (!(c.modified < cutoff) || s.isSkipped(path)) continue;
    if (std::find(s.ignoredPaths.begin(), s.ignoredPaths.end(), path.string()) != s.ignoredPaths.end()) continue;
    const int64_t size = S_ISDIR(c.st.st_mode) ? FS::allocatedSize(path) : FS::fileSize(c.st);
    if (size > s.maxAutoBytes()) continue;
    if (auto e = shred(path, rule, reason, std::nullopt, size, now)) events.push_back(std::move(*e));
  }
  return events;
}

std::vector<ShredEvent> ShredderEngine::installers(const fs::path& folder, Date now) {
  const bool linuxLayout = paths_.layout() == Layout::linux;
  return aged(folder, now, settings().shredInstallersAfterDays, ShredRule::installer, [&](const std::string& name) {
    const std::string ext = lowerExtension(name);
    return among(kInstallerExtensions, ext) || (linuxLayout && among(kLinuxInstallerExtensions, ext));
  });
}

std::vector<ShredEvent> ShredderEngine::screenshots(const fs::path& folder, Date now) {
  return aged(folder, now, settings().tidyScreenshotsAfterDays, ShredRule::screenshot, isScreenshotName);
}

std::vector<ShredEvent> ShredderEngine::trash(Date now) {
  std::vector<ShredEvent> events;
  const int64_t days = settings().emptyTrashAfterDays;
  if (days < 1) return events;
  const Date cutoff = Dates::minusDays(now, days);
  const bool freedesktop = paths_.layout() == Layout::linux;
  const fs::path items = freedesktop ? paths_.homeTrashDir() / "files" : paths_.homeTrashDir();
  const std::string reason = "In the Trash for " + std::to_string(days) + "+ days";
  for (const auto& item : FS::children(items)) {
    std::optional<Date> arrived = arrivalDate ? arrivalDate(item) : std::nullopt;
    if (!arrived) {
      // Moving an item into the Trash sets its status-change time.
      struct stat st;
      if (::lstat(item.c_str(), &st) != 0) continue;
      arrived = std::max(platform::modifiedTime(st), platform::changedTime(st));
    }
    if (!(*arrived < cutoff)) continue;
    if (policy_.check(item.string()).kind != Verdict::Kind::allowed) continue;
    const int64_t size = FS::allocatedSize(item);
    // Never into the quarantine: the item is in the Trash already. The skip list, the ignored
    // paths and the size cap do not apply here on purpose.
    const RemoveResult removed = remover_.remove(item);
    if (!removed.ok()) continue;
    // The item first, then its record: a record without an item is an orphan, never the reverse.
    if (freedesktop) (void)remover_.remove(platform::trashInfoFile(item));
    ShredEvent e{Uuid::make(), now, item.string(), std::string(ShredRule::trash), reason, size, false,
                 std::nullopt, std::nullopt};
    history_.append(e);
    audit_.append(
        {AuditEntry::of(AuditAction::delete_, item.string(), now)
             .bytes(size)
             .in(CleanCategory::trash)
             .by(TriggerSource::schedule("Shredder · " + std::string(ShredRule::trash)))});
    events.push_back(std::move(e));
  }
  return events;
}

std::optional<ShredEvent> ShredderEngine::shred(const fs::path& url, std::string_view rule, const std::string& reason,
                                                const std::optional<std::string>& twin, int64_t size, Date now) {
  const ShredderSettings s = settings();
  const std::string path = url.string();
  if (policy_.check(path).kind != Verdict::Kind::allowed) return std::nullopt;
  if (size > s.maxAutoBytes()) return std::nullopt;
  bool inside = false;
  for (const auto& folder : watchedURLs()) {
    std::string f = folder.string();
    if (path == f) inside = true;
    if (f.empty() || f.back() != '/') f += '/';
    if (path.rfind(f, 0) == 0) inside = true;
  }
  if (!inside) return std::nullopt;

  const TriggerSource trigger = TriggerSource::schedule("Shredder · " + std::string(rule));
  const CleanCategory category = categoryOf(rule);
  ShredEvent event{Uuid::make(), now, path, std::string(rule), reason, size, s.quarantineFirst, std::nullopt, twin};
  try {
    // The parent is opened from the home folder without following links, so what is moved or
    // removed is the file that was judged.
    ParentDir parent = SafeFS::openParent(Anchor::forPath(paths_.home(), url), url);
    if (s.quarantineFirst) {
      if (sweepThread_.load() == std::this_thread::get_id()) {
        // Departure from one session per file: within a sweep each rule fills one session,
        // closed when the sweep ends (a first sweep over a full folder would otherwise write
        // and flush a manifest per file). The journal keeps every move recoverable meanwhile.
        auto it = sweepSessions_.find(std::string(rule));
        if (it == sweepSessions_.end())
          it = sweepSessions_
                   .emplace(std::string(rule), quarantine_.beginSession(trigger, config_.quarantineRetentionDays, now))
                   .first;
        quarantine_.add(parent, size, category, it->second);
        event.quarantineSession = it->second.id;
      } else {
        QuarantineSession session = quarantine_.beginSession(trigger, config_.quarantineRetentionDays, now);
        try {
          quarantine_.add(parent, size, category, session);
        } catch (const std::exception&) {
          quarantine_.close(session);  // an empty session is removed again
          throw;
        }
        quarantine_.close(session);
        event.quarantineSession = session.id;
      }
    } else {
      if (!remover_.removeEntry(parent).ok()) return std::nullopt;
    }
  } catch (const std::exception&) {
    return std::nullopt;  // refused or failed: the file stays where it is
  }
  history_.append(event);
  audit_.append(
      {AuditEntry::of(s.quarantineFirst ? AuditAction::quarantine : AuditAction::delete_, path, now)
           .bytes(size)
           .in(category)
           .by(trigger)});
  return event;
}

std::optional<ShredEvent> ShredderEngine::shredCandidate(const ShredCandidate& candidate, Date now) {
  std::lock_guard<std::mutex> guard(sweepLock_);
  const auto lock = FileLock::acquire(paths_.shredderSweepLockFile(), lockWait);
  if (!lock) throw ShredderBusy();
  const std::string twinName = fs::path(candidate.twinPath).filename().string();
  // Approved a while ago: the copy it duplicated may be gone or changed since, and this file may
  // now be the only one. It then stays, and leaves the queue.
  if (candidate.rule == ShredRule::duplicate && !twinHolds(candidate.path, candidate.twinPath, nullptr)) {
    review_.remove(candidate.path);
    return std::nullopt;
  }
  auto event = shred(candidate.path, candidate.rule, "You approved it: identical to " + twinName, candidate.twinPath,
                     candidate.size, now);
  if (event) review_.remove(candidate.path);
  return event;
}

void ShredderEngine::saveIndex() { index_.save(); }

ShredderEngine::Counters ShredderEngine::counters() const {
  return {sweeps_, filesHashed_, bytesHashed_, bytesCompared_};
}

void ShredderEngine::setDebounce(std::chrono::duration<double> debounce) {
  std::lock_guard<std::mutex> guard(watchLock_);
  debounce_ = debounce;
}

void ShredderEngine::scheduleSweep(Clock::time_point at) {
  std::lock_guard<std::mutex> guard(watchLock_);
  // Each change moves the sweep to `debounce` after it, so a burst ends in one sweep.
  due_ = at;
  wake_.notify_all();
}

void ShredderEngine::startWatching(OnSweep onSweep) {
  stopWatching();
  {
    std::lock_guard<std::mutex> guard(watchLock_);
    watching_ = true;
    stopping_ = false;
    due_.reset();
  }
  worker_ = std::thread([this, onSweep = std::move(onSweep)] { runWatchLoop(onSweep); });
  std::lock_guard<std::mutex> guard(sweepLock_);
  watcher_ = services_.makeFolderWatcher();
  if (watcher_) {
    watchedNow_ = foldersToWatch();
    watcher_->watch(watchedNow_, [this](const FolderWatcher::Change& c) { onFolderChange(c); });
  }
}

void ShredderEngine::onFolderChange(const FolderWatcher::Change& change) {
  // An overflow needs nothing more: every sweep looks at every folder. In the settings folder
  // only a change of the two settings files counts (on macOS it holds the quarantine and the
  // logs, which sweeps write themselves).
  if (!change.overflow && following_ && change.folder == paths_.configDir()) {
    const auto folders = watchedURLs();
    if (std::find(folders.begin(), folders.end(), change.folder) == folders.end()) {
      const SettingsSeen now{seen(paths_.configFile()), seen(paths_.shredderSettingsFile())};
      std::lock_guard<std::mutex> guard(seenLock_);
      if (settingsSeen_ && now == *settingsSeen_) return;
    }
  }
  std::chrono::duration<double> d;
  {
    std::lock_guard<std::mutex> guard(watchLock_);
    d = debounce_;
  }
  scheduleSweep(Clock::now() + std::chrono::duration_cast<Clock::duration>(d));
}

void ShredderEngine::stopWatching() {
  {
    std::lock_guard<std::mutex> guard(watchLock_);
    stopping_ = true;
    watching_ = false;
    due_.reset();
    wake_.notify_all();
  }
  if (worker_.joinable()) worker_.join();
  std::lock_guard<std::mutex> guard(sweepLock_);
  if (watcher_) watcher_->stop();
  watcher_.reset();
  watchedNow_.clear();
}

void ShredderEngine::runWatchLoop(OnSweep onSweep) {
  std::unique_lock<std::mutex> lock(watchLock_);
  for (;;) {
    // Sleeps until the next due sweep, or until told; never wakes on its own otherwise.
    if (due_) wake_.wait_until(lock, *due_, [&] { return stopping_ || !due_ || Clock::now() >= *due_; });
    else wake_.wait(lock, [&] { return stopping_ || due_.has_value(); });
    if (stopping_) return;
    if (!due_ || Clock::now() < *due_) continue;
    due_.reset();
    lock.unlock();
    const SweepResult result = sweep(services_.now());
    if (onSweep && (!result.events.empty() || result.status != SweepResult::Status::done)) onSweep(result);
    lock.lock();
  }
}

}  // namespace kestrel
