// Cleaner: per-target dispatch, the path disposal with its policy binding, the admin step.
#include "core/clean/Cleaner.h"

#include "core/clean/CloudFiles.h"
#include "core/system/fs/Trash.h"
#include "core/system/fs/FS.h"
#include "core/clean/Explain.h"

#include <sys/stat.h>

#include <cerrno>

namespace kestrel {

namespace fs = std::filesystem;

struct Cleaner::Pass {
  const TriggerSource& trigger;
  bool dryRun;
  std::optional<Disposal> disposalOverride;
  Date now;
  CleanReport report;
  std::vector<AuditEntry> audit;
  std::optional<QuarantineSession> session;
  std::vector<ScanItem> adminItems;
};

namespace {

AuditAction actionOf(Disposal d) {
  switch (d) {
    case Disposal::quarantine: return AuditAction::quarantine;
    case Disposal::trash: return AuditAction::trash;
    case Disposal::delete_: return AuditAction::delete_;
  }
  return AuditAction::delete_;
}

void addChecked(int64_t& total, int64_t amount) {
  if (__builtin_add_overflow(total, amount, &total)) total = INT64_MAX;  // a report figure: saturate
}

}  // namespace

bool Cleaner::isPermissionError(const std::error_code& ec) {
  return ec == std::errc::permission_denied || ec == std::errc::operation_not_permitted;
}

Cleaner::Cleaner(Paths paths, AppConfig config, const Services& services,
                 PrivilegedSession* session, AdminQueue* queue)
    : paths_(paths),
      config_(std::move(config)),
      policy_(paths, config_.protectedPaths, services),
      quarantine_(paths, services),
      audit_(paths),
      remover_(paths.home()),
      services_(services.withDefaults()),
      session_(session ? session : &PrivilegedSession::shared(paths_)),
      queue_(queue ? *queue : AdminQueue(paths_)) {}

CleanReport Cleaner::clean(const std::vector<ScanItem>& items, const TriggerSource& trigger, bool dryRun,
                           std::optional<Disposal> disposalOverride, const Progress& progress) {
  Pass pass{trigger, dryRun, disposalOverride, services_.now(), {}, {}, {}, {}};
  for (size_t i = 0; i < items.size(); ++i) {
    if (progress) progress(i, items.size());
    const ScanItem& item = items[i];
    try {
      switch (item.target.kind) {
        case ItemTarget::Kind::command: {
          ++pass.report.itemsProcessed;
          if (dryRun) break;
          const auto& command = item.target.command;
          const Shell::Result r = services_.run(command.executable, command.arguments, 600);
          const std::string message = r.stderr.empty() ? "exit " + std::to_string(r.status) : r.stderr;
          // A tool's own figure, which may be unknown: nothing is claimed for it then.
          if (r.ok()) addChecked(pass.report.freedBytes, item.countedSize());
          else pass.report.failures.push_back({item.id, message});
          pass.audit.push_back(
              AuditEntry::of(AuditAction::command, command.display(), pass.now)
                  .bytes(item.countedSize())
                  .in(item.category)
                  .by(trigger)
                  .outcome(r.ok(), r.ok() ? std::nullopt : std::optional(message)));
          break;
        }
        case ItemTarget::Kind::adminPath:
          pass.adminItems.push_back(item);
          break;
        case ItemTarget::Kind::evict: {
          const std::string& path = item.target.pathValue;
          const Verdict v = policy_.check(path);
          if (v.isBlocked()) {
            pass.report.skippedProtected.push_back(path);
            if (!dryRun)
              pass.audit.push_back(AuditEntry::of(AuditAction::skip, path, pass.now)
                                       .bytes(item.size)
                                       .in(item.category)
                                       .by(trigger)
                                       .failed(v.text));
            break;
          }
          addChecked(pass.report.evictedBytes, item.size);
          ++pass.report.itemsProcessed;
          if (dryRun) break;
          CloudEvictor::evict(path, paths_, services_);
          pass.audit.push_back(AuditEntry::of(AuditAction::evict, path, pass.now)
                                   .bytes(item.size)
                                   .in(item.category)
                                   .by(trigger));
          break;
        }
        case ItemTarget::Kind::path:
          disposePath(item, item.target.pathValue, pass);
          break;
      }
    } catch (const std::exception& e) {
      pass.report.failures.push_back({item.id, e.what()});
      if (!dryRun && item.path())
        pass.audit.push_back(AuditEntry::of(AuditAction::fail, *item.path(), pass.now)
                                 .bytes(item.size)
                                 .in(item.category)
                                 .by(trigger)
                                 .failed(e.what()));
    }
  }
  if (progress) progress(items.size(), items.size());
  if (!dryRun) runAdminStep(pass);
  if (pass.session) {
    // Writes the manifest once for the whole clean; a session nothing went into is removed.
    quarantine_.close(*pass.session);
    if (!pass.session->entries.empty()) pass.report.quarantineSessionID = pass.session->id;
  }
  if (!dryRun) audit_.append(pass.audit);
  return pass.report;
}

void Cleaner::skip(const ScanItem& item, const std::string& path, const std::string& reason, Pass& pass) {
  pass.report.skippedProtected.push_back(path);
  if (!pass.dryRun)
    pass.audit.push_back(AuditEntry::of(AuditAction::skip, path, pass.now)
                             .bytes(item.size)
                             .in(item.category)
                             .by(pass.trigger)
                             .failed(reason));
}

std::optional<Cleaner::Target> Cleaner::resolve(const ScanItem& item, const std::string& givenPath,
                                                 const Verdict& verdict, Pass& pass) {
  if (verdict.isBlocked() || verdict.kind == Verdict::Kind::syncedCloud) {
    // A synced cloud folder offers only eviction: removing the file there would delete it everywhere.
    skip(item, givenPath, verdict.isBlocked() ? verdict.text : "In " + verdict.text + "; only eviction is offered",
         pass);
    return std::nullopt;
  }
  if (verdict.kind == Verdict::Kind::needsAdmin) {
    ScanItem admin = item;
    admin.target = ItemTarget::forAdminPath(givenPath);
    pass.adminItems.push_back(admin);
    return std::nullopt;
  }
  // The name the user knows the item by (for reports and records), and where it really is: a
  // folder the policy lets a root follow through a link is acted on at its real place.
  Target t{SafetyPolicy::normalize(givenPath, paths_.home()), ""};
  const auto place = policy_.placeOf(t.path);
  // Through a link only when the scan found the item there too: a folder swapped for a link since
  // (even one the policy would follow) is not where the user's choice was made.
  if (!place || *place != item.realPath.value_or(t.path)) {
    skip(item, givenPath, "The folder changed while cleaning", pass);
    return std::nullopt;
  }
  t.real = *place;
  struct stat st;
  if (::lstat(t.real.c_str(), &st) == 0) return t;
  if (errno != ENOENT && errno != ENOTDIR) {
    pass.report.failures.push_back({item.id, "couldn't be read (the drive it's on may be offline)"});
    return std::nullopt;
  }
  // An evicted cloud file leaves only its placeholder; that is what there is to remove.
  const auto withPlaceholder = [](const std::string& p) {
    const fs::path f(p);
    return (f.parent_path() / ("." + f.filename().string() + ".icloud")).string();
  };
  if (::lstat(withPlaceholder(t.real).c_str(), &st) != 0) {
    if (!pass.dryRun)
      pass.audit.push_back(
          AuditEntry::of(AuditAction::gone, t.path, pass.now).in(item.category).by(pass.trigger));
    return std::nullopt;
  }
  return Target{withPlaceholder(t.path), withPlaceholder(t.real)};
}

void Cleaner::disposePath(const ScanItem& item, const std::string& givenPath, Pass& pass) {
  const Verdict verdict = policy_.check(givenPath);
  const auto target = resolve(item, givenPath, verdict, pass);
  if (!target) return;
  const Disposal disposal = pass.disposalOverride.value_or(config_.disposal(item.category));
  if (pass.dryRun) {
    switch (disposal) {
      case Disposal::quarantine: addChecked(pass.report.quarantinedBytes, item.size); break;
      case Disposal::trash: addChecked(pass.report.trashedBytes, item.size); break;
      case Disposal::delete_: addChecked(pass.report.freedBytes, item.size); break;
    }
    ++pass.report.itemsProcessed;
    return;
  }
  const AuditAction action = actionOf(disposal);
  auto failed = [&](const std::string& message) {
    pass.report.failures.push_back({item.id, message});
    pass.audit.push_back(AuditEntry::of(action, target->path, pass.now)
                             .bytes(item.size)
                             .in(item.category)
                             .by(pass.trigger)
                             .failed(message));
  };
  try {
    if (!disposeAt(item, *target, verdict, disposal, pass)) return;
  } catch (const std::system_error& e) {
    if (!setAsideOnPermission(item, target->path, disposal, e.code(), pass)) failed(e.what());
    return;
  } catch (const QuarantineAddError& e) {
    return failed(e.what());
  } catch (const FS::ContainsMount& e) {
    return failed(e.what());
  } catch (const CleanerError& e) {
    return failed(e.what());
  }
  ++pass.report.itemsProcessed;
  pass.audit.push_back(AuditEntry::of(action, target->path, pass.now)
                           .bytes(item.size)
                           .in(item.category)
                           .by(pass.trigger));
}

bool Cleaner::setAsideOnPermission(const ScanItem& item, const std::string& path, Disposal disposal,
                                   const std::error_code& ec, Pass& pass) {
  // Only a deletion may become a privileged deletion: an item the user wanted undoable must
  // never be removed for good behind their back.
  if (disposal != Disposal::delete_ || !isPermissionError(ec)) return false;
  if (policy_.check(path).isBlocked()) return false;
  ScanItem admin = item;
  admin.target = ItemTarget::forAdminPath(path);
  pass.adminItems.push_back(admin);
  return true;
}

bool Cleaner::disposeAt(const ScanItem& item, const Target& target, const Verdict& verdict, Disposal disposal,
                        Pass& pass) {
  const std::string& path = target.path;
  const std::string& real = target.real;
  // Open the parent from a trusted folder without following any link, then judge what was
  // actually opened: a folder swapped, moved or re-linked since the check above is refused.
  ParentDir parent = SafeFS::openParent(Anchor::forPath(paths_.home(), real), real);
  const fs::path realParent = fs::path(real).parent_path();
  const auto opened = parent.realPath();
  const Verdict bound = policy_.check(path);
  if (bound.kind != verdict.kind || policy_.placeOf(path) != real || (opened && *opened != realParent)) {
    pass.report.skippedProtected.push_back(path);
    pass.audit.push_back(
        AuditEntry::of(AuditAction::skip, path, pass.now)
            .bytes(item.size)
            .in(item.category)
            .by(pass.trigger)
            .failed(bound.isBlocked() ? bound.text : "The folder changed while cleaning"));
    return false;
  }
  // Records (the quarantine's original path, the Trash's info file) keep the name the user knows.
  parent.path = fs::path(path).parent_path();
  if (CloudFiles::isDataless(real)) {
    // No local data: the cloud service's own removal, retried while it is busy.
    CloudFiles::remove(real, 4, services_);
    addChecked(pass.report.freedBytes, item.size);
    ++pass.report.itemsProcessed;
    pass.audit.push_back(AuditEntry::of(AuditAction::delete_, path, pass.now)
                             .bytes(item.size)
                             .in(item.category)
                             .by(pass.trigger));
    return false;
  }
  switch (disposal) {
    case Disposal::quarantine:
      if (!pass.session) pass.session = quarantine_.beginSession(pass.trigger, config_.quarantineRetentionDays, pass.now);
      quarantine_.add(parent, item.size, item.category, *pass.session);
      addChecked(pass.report.quarantinedBytes, item.size);
      break;
    case Disposal::trash:
      platform::moveToTrash(paths_, parent, pass.now);
      addChecked(pass.report.trashedBytes, item.size);
      break;
    case Disposal::delete_: {
      const RemoveResult r = remover_.removeEntry(parent);
      if (!r.ok()) {
        if (setAsideOnPermission(item, path, disposal, r.error, pass)) return false;
        r.throwIfFailed();
      }
      addChecked(pass.report.freedBytes, item.size);
      break;
    }
  }
  if (identityAt(parent.fd.get(), parent.name.c_str())) throw CleanerError::stillThere(parent.name);
  // An entry that left a freedesktop Trash takes its info file and size line with it.
  if (item.category == CleanCategory::trash) platform::forgetTrashEntry(path);
  return true;
}

void Cleaner::runAdminStep(Pass& pass) {
  if (pass.adminItems.empty()) return;
  std::vector<ScanItem> allowed;
  for (const auto& item : pass.adminItems) {
    const std::string path = *item.path();
    const Verdict v = policy_.check(path);
    if (v.isBlocked() || v.kind == Verdict::Kind::syncedCloud) {
      pass.report.skippedProtected.push_back(path);
      pass.audit.push_back(AuditEntry::of(AuditAction::skip, path, pass.now)
                               .bytes(item.size)
                               .in(item.category)
                               .by(pass.trigger)
                               .failed(v.isBlocked() ? v.text : "In " + v.text));
      continue;
    }
    allowed.push_back(item);
  }
  if (allowed.empty()) return;
  if (config_.queueAdminRemovals) {
    std::optional<std::string> notQueued;
    try {
      queue_.enqueue(allowed);
    } catch (const std::exception& e) {
      // Not queued is not removed: the item stays and says why.
      notQueued = std::string("Could not queue for administrator removal: ") + e.what();
    }
    for (const auto& item : allowed) {
      if (notQueued) {
        pass.report.failures.push_back({item.id, *notQueued});
      } else {
        ++pass.report.deferredAdmin;
      }
      pass.audit.push_back(AuditEntry::of(AuditAction::queued, *item.path(), pass.now)
                               .bytes(item.size)
                               .in(item.category)
                               .by(pass.trigger)
                               .outcome(!notQueued, notQueued.value_or("needs admin — queued")));
    }
    return;
  }
  std::vector<std::string> paths;
  for (const auto& item : allowed) paths.push_back(*item.path());
  const Shell::Result r = AdminRunner::remove(*session_, paths);
  const std::string output = r.ok() ? "" : (r.stderr.empty() ? r.stdout : r.stderr);
  for (const auto& item : allowed) {
    const std::string path = *item.path();
    if (FS::exists(path)) {
      const std::string message = "Could not remove " + path + ": " + Explain::removalFailure(path, output);
      pass.report.failures.push_back({item.id, message});
      pass.audit.push_back(AuditEntry::of(AuditAction::delete_, path, pass.now)
                               .bytes(item.size)
                               .in(item.category)
                               .by(pass.trigger)
                               .failed(message));
    } else {
      addChecked(pass.report.freedBytes, item.size);
      ++pass.report.itemsProcessed;
      pass.audit.push_back(AuditEntry::of(AuditAction::delete_, path, pass.now)
                               .bytes(item.size)
                               .in(item.category)
                               .by(pass.trigger));
    }
  }
}

std::vector<CleanFailure> Cleaner::restore(const std::string& sessionID, const std::optional<std::set<std::string>>& entryIDs) {
  auto activeBytes = [&] {
    for (const auto& s : quarantine_.sessions())
      if (s.id == sessionID) return s.totalSize();
    return int64_t{0};
  };
  const Date now = services_.now();
  // Settled first, so the bytes counted before are the ones restore can act on.
  quarantine_.recover(now);
  const int64_t before = activeBytes();
  // A folder an item came from may since have become a link the policy lets a root follow.
  auto failures = quarantine_.restore(sessionID, now, entryIDs,
                                      [this](const std::string& p) { return policy_.placeOf(p); });
  const int64_t restored = before - activeBytes();
  audit_.append({AuditEntry::of(AuditAction::restore, sessionID, now)
                     .bytes(restored)
                     .by(TriggerSource::manual())
                     .outcome(failures.empty(),
                              failures.empty() ? std::nullopt
                                               : std::optional(std::to_string(failures.size()) +
                                                               " item(s) could not be restored"))});
  return failures;
}

}  // namespace kestrel
