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

struct AuditEntry {
  std::string id;      // upper-case UUID text
  Date date{};         // persisted to whole seconds
  std::string action;  // "delete", "trash", "command", "purge", "quarantine", "restore", …
  std::string target;
  int64_t size = 0;
  std::optional<CleanCategory> category;
  TriggerSource trigger;
  bool success = true;
  std::optional<std::string> message;

  // A record with a fresh id.
  static AuditEntry make(Date date, std::string action, std::string target, int64_t size,
                         std::optional<CleanCategory> category, TriggerSource trigger, bool success,
                         std::optional<std::string> message = std::nullopt);
  bool operator==(const AuditEntry&) const = default;
};

Json toJson(const AuditEntry& e);
// Strict: DecodeError for a missing or ill-typed required key.
AuditEntry auditEntryFromJson(const Json& j);
// One line of the log; nothing when it is blank, too long or does not decode.
std::optional<AuditEntry> decodeAuditLine(std::string_view line);

// What the lifetime total needs from a line, read without building a JSON document.
struct QuickAuditRecord {
  std::string_view action;  // points into the line
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
