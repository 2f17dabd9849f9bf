// ShredderEngine: the four shredder rules over the watched folders, on demand or as they change.
#pragma once

#include "core/clean/Quarantine.h"
#include "core/model/AppConfig.h"
#include "core/safety/SafetyPolicy.h"
#include "core/shredder/DuplicateGroups.h"
#include "core/shredder/HashCache.h"
#include "core/shredder/ShredIndex.h"
#include "core/shredder/ShredHistory.h"
#include "core/shredder/ShredReviewQueue.h"
#include "core/shredder/ShredderModel.h"
#include "core/store/AuditLog.h"
#include "core/system/fs/FolderWatcher.h"
#include "core/system/Paths.h"
#include "core/system/fs/SafeRemove.h"
#include "core/system/Services.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace kestrel {

// What one sweep did. A sweep acts only when the shredder is on, another process's sweep is not
// still holding the sweep lock, and (when the engine follows the settings files) the settings
// decode.
struct SweepResult {
  enum class Status { done, off, busy, damagedSettings };
  Status status = Status::done;
  std::vector<ShredEvent> events;
  std::string message;  // busy, damagedSettings: the line to log
};

// Thrown by shredCandidate when another sweep keeps the sweep lock longer than it may wait.
class ShredderBusy : public std::runtime_error {
 public:
  ShredderBusy() : std::runtime_error(std::string(kText)) {}
  static constexpr std::string_view kText = "Another Shredder sweep is in progress; skipping.";
};

// One engine per process. Every public operation may be called from any thread: sweeps (whether
// asked for, timed or triggered by a change) run one at a time and never overlap.
class ShredderEngine {
 public:
  using OnSweep = std::function<void(const SweepResult&)>;

  // Loads the duplicate index and the hash cache. `services` supplies the clock for sweeps the
  // watcher starts and the folder watcher itself.
  ShredderEngine(Paths paths, AppConfig config, ShredderSettings settings, const Services& services = {});
  ~ShredderEngine();
  ShredderEngine(const ShredderEngine&) = delete;
  ShredderEngine& operator=(const ShredderEngine&) = delete;

  ShredderSettings settings() const;
  // Takes effect from the next sweep (the watched folders: from the next startWatching).
  void setSettings(const ShredderSettings& settings);

  // The settings' folders ("~" expanded) that exist as folders and are no links, in order.
  std::vector<fs::path> watchedURLs() const;

  // From now on every sweep first re-reads the settings file and the shredder's settings file
  // when either changed (by identity, size and modification time), and watching also follows
  // the folder holding them, so a change applies within one debounce period. Without it the
  // engine keeps the settings it was built with.
  void followSettingsFiles();

  // One full pass: each watched folder's duplicates, installers and screenshots, then the Trash;
  // saves the index. Nothing at all unless the shredder is both approved and enabled. Holds the
  // sweep lock shared by every process for the whole pass, waiting for it at most
  // `lockWait` (then `busy`). Per-file failures only skip that file.
  SweepResult sweep(Date now);
  // The rules one by one, as sweep() runs them; called directly they must not run while a sweep
  // does (the hash cache is the sweep's).
  std::vector<ShredEvent> dedupe(const fs::path& folder, Date now);
  std::vector<ShredEvent> installers(const fs::path& folder, Date now);
  std::vector<ShredEvent> screenshots(const fs::path& folder, Date now);
  std::vector<ShredEvent> trash(Date now);

  // Disposes of one file inside a watched folder (quarantine or deletion by the settings) after
  // the safety policy allows it and `size` is within the cap; records the event in the history
  // and the audit log. Nothing when it refused or failed.
  std::optional<ShredEvent> shred(const fs::path& url, std::string_view rule, const std::string& reason,
                                  const std::optional<std::string>& twin, int64_t size, Date now);
  // Disposes of a candidate the user approved from the review queue and takes it off the queue,
  // under the sweep lock (ShredderBusy when it stays held past `lockWait`).
  std::optional<ShredEvent> shredCandidate(const ShredCandidate& candidate, Date now);

  // How long a sweep waits for another process's sweep to end (a minute by default).
  std::chrono::milliseconds lockWait{60000};

  // Drops index entries whose files are gone and writes the index when it changed.
  void saveIndex();

  // Watches the folders: a burst of changes leads to one sweep `debounce` after the last change,
  // and a duplicate that was too fresh gets one more sweep once it has settled. `onSweep` gets
  // the result of those sweeps that disposed of something or did not run (off, busy, damaged
  // settings) on the engine's own thread.
  void startWatching(OnSweep onSweep);
  // Ends watching; once it returns no triggered sweep is running or pending.
  void stopWatching();
  // Five seconds by default.
  void setDebounce(std::chrono::duration<double> debounce);

  // When an item that arrived in the Trash got there; nothing when unknown (its modification
  // and status-change times are used then). Default: the Trash's own record (Linux: the
  // ".trashinfo" DeletionDate; macOS: the date added to the folder).
  std::function<std::optional<Date>(const fs::path&)> arrivalDate;

  struct Counters {
    uint64_t sweeps = 0;
    uint64_t filesHashed = 0;  // files whose content was read
    uint64_t bytesHashed = 0;  // bytes of content read to hash it
    uint64_t bytesCompared = 0;  // bytes read to confirm a duplicate byte for byte (both files)
  };
  Counters counters() const;

  struct DedupePass;

 private:
  std::vector<ShredEvent> sweepLocked(Date now);
  // Re-reads the settings files that changed; the reason when the settings file is damaged.
  std::optional<std::string> refreshSettings();
  // The folders the watcher follows: the watched folders, and the settings folder when following.
  std::vector<fs::path> foldersToWatch() const;
  // True when `disposed` may go as a copy of `kept`: both still regular files, two files (not
  // one file under two names) and the same bytes (proved by `pass`'s reading, else compared).
  bool twinHolds(const std::string& disposed, const std::string& kept, const DedupePass* pass);
  // The duplicate rule's verdict on one settled file of the pass (index, twin, disposal).
  void decideDuplicate(DedupePass& pass, const DuplicateGroups::Listed& f);
  std::optional<uint64_t> hashOf(const DedupePass& pass, const DuplicateGroups::Listed& f);
  std::vector<ShredEvent> aged(const fs::path& folder, Date now, int64_t days, std::string_view rule,
                               const std::function<bool(const std::string& name)>& matches);
  void scheduleSweep(std::chrono::steady_clock::time_point at);
  void runWatchLoop(OnSweep onSweep);
  void onFolderChange(const FolderWatcher::Change& change);
  void noteSettle(Date at);

  Paths paths_;
  AppConfig config_;
  Services services_;
  mutable std::mutex settingsLock_;
  ShredderSettings settings_;
  ShredHistory history_;
  ShredReviewQueue review_;
  SafetyPolicy policy_;
  Quarantine quarantine_;
  AuditLog audit_;
  SafeRemover remover_;

  std::mutex sweepLock_;  // held for a whole sweep, so sweeps never overlap within the process
  // Following the settings files: what each file was when last read (nothing: not followed).
  struct FileSeen {
    bool exists = false;
    uint64_t dev = 0, ino = 0;
    int64_t size = 0;
    Date modified{}, changed{};
    bool operator==(const FileSeen&) const = default;
  };
  struct SettingsSeen {
    FileSeen config, shredder;
    bool operator==(const SettingsSeen&) const = default;
  };
  static FileSeen seen(const fs::path& file);
  std::atomic<bool> following_{false};
  std::mutex seenLock_;  // settingsSeen_ is also read by the watcher's thread
  std::optional<SettingsSeen> settingsSeen_;  // nothing: read both files at the next sweep
  std::optional<std::string> settingsDamage_;  // why the settings file does not decode
  HashCache hashes_;
  std::optional<Date> settleAt_;  // the earliest moment a fresh duplicate will have settled
  std::atomic<std::thread::id> sweepThread_{};  // the thread running sweep()'s rules, if any
  std::map<std::string, QuarantineSession> sweepSessions_;  // by rule, open during a sweep

  ShredIndex index_;

  std::atomic<uint64_t> sweeps_{0}, filesHashed_{0}, bytesHashed_{0}, bytesCompared_{0};

  // Watching: the watcher calls in, the worker thread waits for the next due sweep.
  std::unique_ptr<FolderWatcher> watcher_;  // replaced only under sweepLock_
  std::vector<fs::path> watchedNow_;
  std::thread worker_;
  std::mutex watchLock_;
  std::condition_variable wake_;
  bool watching_ = false;
  bool stopping_ = false;
  std::optional<std::chrono::steady_clock::time_point> due_;
  std::chrono::duration<double> debounce_{5.0};
};

}  // namespace kestrel
