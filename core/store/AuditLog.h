// Audit log: the append-only JSON-lines record of every removal, move and restore.
#pragma once

#include <cstdint>
#include <filesystem>
#include <limits>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/model/ScanModel.h"
#include "core/model/TriggerSource.h"
#include "core/base/Dates.h"
#include "core/base/Json.h"
#include "core/store/JsonLines.h"
#include "core/system/Paths.h"

namespace kestrel {

// What a record says was done. Raw values are the case names ("delete" for delete_).
enum class AuditAction { delete_, trash, quarantine, command, evict, restore, purge, skip, gone, fail, queued };
std::string_view rawValue(AuditAction a);
std::optional<AuditAction> auditActionFromRaw(std::string_view raw);

// One record. Built by name, starting from what was done to what and when:
//   AuditEntry::of(AuditAction::skip, path, now).bytes(size).in(category).by(trigger).failed(why)
// A record given to AuditLog::append without an id gets a fresh one.
struct AuditEntry {
  std::string id;  // upper-case UUID text
  Date date{};     // persisted to whole seconds
  AuditAction action = AuditAction::delete_;
  std::string target;
  int64_t size = 0;
  std::optional<CleanCategory> category;
  TriggerSource trigger;
  bool success = true;
  std::optional<std::string> message;

  static AuditEntry of(AuditAction action, std::string target, Date date) {
    AuditEntry e;
    e.action = action;
    e.target = std::move(target);
    e.date = date;
    return e;
  }
  AuditEntry& bytes(int64_t n) { return size = n, *this; }
  AuditEntry& in(std::optional<CleanCategory> c) { return category = c, *this; }
  AuditEntry& by(TriggerSource t) { return trigger = std::move(t), *this; }
  // Unsuccessful, and why.
  AuditEntry& failed(std::string why) { return success = false, message = std::move(why), *this; }
  // Successful or not as `ok` says, with a message when there is one.
  AuditEntry& outcome(bool ok, std::optional<std::string> why = std::nullopt) {
    return success = ok, message = std::move(why), *this;
  }

  bool operator==(const AuditEntry&) const = default;
};

Json toJson(const AuditEntry& e);
// Strict: DecodeError for a missing or ill-typed required key.
AuditEntry auditEntryFromJson(const Json& j);
// One line of the log; nothing when it is blank, too long or does not decode.
std::optional<AuditEntry> decodeAuditLine(std::string_view line);

// What the lifetime total needs from a line, read without building a JSON document.
struct QuickAuditRecord {
  AuditAction action = AuditAction::delete_;
  int64_t size = 0;
  bool success = false;
};
// Reads a line only in the plain form this log writes (known keys once each, no \u escapes);
// nothing when unsure, and the caller then uses decodeAuditLine. Never accepts a line that
// decodeAuditLine rejects, and agrees with it on every line it accepts.
std::optional<QuickAuditRecord> quickReadAuditLine(std::string_view line);

// The log file "audit.jsonl" in the support folder. Appends from several threads are serialised;
// appends from several processes are whole lines through O_APPEND and one write per batch.
// The writer and the readers follow a final symbolic link, never block, and use only a regular
// file: with a FIFO, a folder or anything else in its place, appends write nothing and reads
// find no records.
class AuditLog {
 public:
  // Longer lines are skipped without being decoded.
  static constexpr size_t kMaxLine = JsonLines::kMaxLine;

  explicit AuditLog(const Paths& paths) : url_(paths.auditFile()) {}

  const std::filesystem::path& url() const { return url_; }

  // Adds the records at the end of the file, creating it and its folder when needed. Never
  // throws: a log that cannot be written loses the records.
  void append(const std::vector<AuditEntry>& entries) noexcept;
  // The last `limit` readable records, newest first. Reads the file from the end in blocks, so a
  // small limit costs little on a long log.
  std::vector<AuditEntry> recent(size_t limit) const;
  // Bytes freed over the life of the log: successful "delete", "trash", "command" and "purge"
  // records. Streams the file in fixed-size blocks.
  int64_t lifetimeFreed() const;

 private:
  std::filesystem::path url_;
  std::unique_ptr<std::mutex> lock_ = std::make_unique<std::mutex>();
};

}  // namespace kestrel
