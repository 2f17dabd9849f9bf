// Audit log: records as JSON lines, a fast reader for the plain ones and a streaming lifetime total.
#include "core/store/AuditLog.h"

#include "core/base/Text.h"

#include "core/store/JsonLines.h"
#include "core/system/Uuid.h"

#include <array>
#include <cstring>

namespace kestrel {
namespace {

bool isCountedAction(AuditAction a) {
  return a == AuditAction::delete_ || a == AuditAction::trash || a == AuditAction::command || a == AuditAction::purge;
}

constexpr std::string_view kActionNames[] = {"delete", "trash", "quarantine", "command", "evict", "restore",
                                             "purge",  "skip",  "gone",       "fail",    "queued"};

// ---- A fast, strict reader for the records this log writes ----------------------------------
//
// Over a million records, building a JSON document per line costs seconds. This reader accepts
// only the plain shape the writer produces (known keys once each, simple literals) and answers
// "unsure" for anything else, which then goes through the full decoder. So it can only ever agree
// with the full decoder: it never accepts a line the decoder would reject.
class QuickReader {
 public:
  explicit QuickReader(std::string_view s) : s_(s) {}

  // Nothing means unsure.
  std::optional<QuickAuditRecord> read() {
    unsigned seen = 0;
    QuickAuditRecord r;
    ws();
    if (!eat('{')) return std::nullopt;
    ws();
    if (peek() == '}') return std::nullopt;
    for (;;) {
      std::string_view key;
      if (!plainString(key)) return std::nullopt;
      ws();
      if (!eat(':')) return std::nullopt;
      ws();
      const unsigned bit = value(key, r);
      if (!bit) return std::nullopt;
      if (seen & bit) return std::nullopt;  // a repeated key: let the full decoder decide
      seen |= bit;
      ws();
      if (eat(',')) {
        ws();
        continue;
      }
      if (!eat('}')) return std::nullopt;
      break;
    }
    ws();
    if (pos_ != s_.size()) return std::nullopt;
    constexpr unsigned kRequired = kId | kDate | kAction | kTarget | kSize | kTrigger | kSuccess;
    if ((seen & kRequired) != kRequired) return std::nullopt;
    return r;
  }

 private:
  static constexpr unsigned kId = 1, kDate = 2, kAction = 4, kTarget = 8, kSize = 16, kCategory = 32,
                            kTrigger = 64, kSuccess = 128, kMessage = 256;

  // Reads the value of `key` into `r`: the key's bit, or 0 when unsure.
  unsigned value(std::string_view key, QuickAuditRecord& r) {
    std::string_view v;
    if (key == "id") return plainString(v) && Uuid::parse(v) ? kId : 0u;
    if (key == "date") return plainString(v) && Dates::parseISO8601(v) ? kDate : 0u;
    if (key == "action") {
      if (!plainString(v)) return 0u;
      const auto action = auditActionFromRaw(v);
      if (!action) return 0u;
      r.action = *action;
      return kAction;
    }
    if (key == "target") return anyString() ? kTarget : 0u;
    if (key == "size") return integer(r.size) ? kSize : 0u;
    if (key == "category") return literal("null") || (plainString(v) && categoryFromRaw(v)) ? kCategory : 0u;
    if (key == "trigger") return trigger() ? kTrigger : 0u;
    if (key == "success") {
      if (literal("true")) r.success = true;
      else if (literal("false")) r.success = false;
      else return 0;
      return kSuccess;
    }
    if (key == "message") return literal("null") || anyString() ? kMessage : 0u;
    return 0;
  }

  char peek() const { return pos_ < s_.size() ? s_[pos_] : '\0'; }
  bool eat(char c) {
    if (peek() != c || pos_ >= s_.size()) return false;
    ++pos_;
    return true;
  }
  void ws() {
    while (pos_ < s_.size() &&
           (s_[pos_] == ' ' || s_[pos_] == '\t' || s_[pos_] == '\r' || s_[pos_] == '\n'))
      ++pos_;
  }
  bool literal(std::string_view word) {
    if (s_.substr(pos_, word.size()) != word) return false;
    pos_ += word.size();
    return true;
  }
  // A string of printable ASCII without escapes; its contents.
  bool plainString(std::string_view& out) {
    if (!eat('"')) return false;
    const size_t start = pos_;
    while (pos_ < s_.size()) {
      const auto c = static_cast<unsigned char>(s_[pos_]);
      if (c == '"') {
        out = s_.substr(start, pos_ - start);
        ++pos_;
        return true;
      }
      if (c < 0x20 || c == '\\' || c >= 0x80) return false;
      ++pos_;
    }
    return false;
  }
  // Any valid string: simple escapes and well-formed UTF-8 (\u escapes are left to the full
  // decoder).
  bool anyString() {
    if (!eat('"')) return false;
    while (pos_ < s_.size()) {
      const auto c = static_cast<unsigned char>(s_[pos_]);
      if (c == '"') {
        ++pos_;
        return true;
      }
      if (c < 0x20) return false;
      if (c == '\\') {
        if (pos_ + 1 >= s_.size()) return false;
        if (!std::strchr("\"\\/bfnrt", s_[pos_ + 1]) || s_[pos_ + 1] == '\0') return false;
        pos_ += 2;
        continue;
      }
      if (c < 0x80) {
        ++pos_;
        continue;
      }
      if (!utf8()) return false;
    }
    return false;
  }
  bool utf8() {
    const Utf8::Sequence q = Utf8::sequenceAt(s_, pos_);
    if (!q.valid) return false;
    pos_ += q.length;
    return true;
  }
  // A plain JSON integer that fits in 64 bits (no fraction or exponent).
  bool integer(int64_t& out) {
    const bool negative = eat('-');
    const size_t start = pos_;
    uint64_t v = 0;
    while (pos_ < s_.size() && s_[pos_] >= '0' && s_[pos_] <= '9') {
      const uint64_t d = static_cast<uint64_t>(s_[pos_] - '0');
      if (v > (UINT64_MAX - d) / 10) return false;
      v = v * 10 + d;
      ++pos_;
    }
    const size_t digits = pos_ - start;
    if (digits == 0 || (digits > 1 && s_[start] == '0')) return false;
    if (peek() == '.' || peek() == 'e' || peek() == 'E') return false;
    if (negative) {
      if (v > static_cast<uint64_t>(INT64_MAX) + 1) return false;
      out = v == static_cast<uint64_t>(INT64_MAX) + 1 ? INT64_MIN : -static_cast<int64_t>(v);
    } else {
      if (v > static_cast<uint64_t>(INT64_MAX)) return false;
      out = static_cast<int64_t>(v);
    }
    return true;
  }
  // The three forms the writer produces, without blanks.
  bool trigger() {
    if (literal("{\"manual\":{}}")) return true;
    for (std::string_view head : {std::string_view("{\"schedule\":{\"ruleName\":"),
                                  std::string_view("{\"uninstall\":{\"appName\":")}) {
      if (literal(head)) return anyString() && literal("}}");
    }
    return false;
  }

  std::string_view s_;
  size_t pos_ = 0;
};



// Adds a line's bytes to `total` when it is a counted, successful record; false when the line
// is no record at all.
bool countLine(std::string_view line, int64_t& total) {
  int64_t size = 0;
  if (auto quick = quickReadAuditLine(line)) {
    if (!quick->success || !isCountedAction(quick->action)) return true;
    size = quick->size;
  } else {
    auto e = decodeAuditLine(line);
    if (!e) return false;
    if (!e->success || !isCountedAction(e->action)) return true;
    size = e->size;
  }
  // One hostile or damaged record must not overflow the sum (undefined behaviour) and so poison
  // every later total: a record that would overflow it is skipped.
  int64_t sum;
  if (!__builtin_add_overflow(total, size, &sum)) total = sum;
  return true;
}

}  // namespace

std::string_view rawValue(AuditAction a) { return kActionNames[static_cast<size_t>(a)]; }

std::optional<AuditAction> auditActionFromRaw(std::string_view raw) {
  for (size_t i = 0; i < std::size(kActionNames); ++i)
    if (kActionNames[i] == raw) return static_cast<AuditAction>(i);
  return std::nullopt;
}

Json toJson(const AuditEntry& e) {
  Json j{{"id", e.id},          {"date", Dates::iso8601(e.date)},
         {"action", std::string(rawValue(e.action))},  {"target", e.target},
         {"size", e.size},      {"trigger", toJson(e.trigger)},
         {"success", e.success}};
  if (e.category) j["category"] = std::string(rawValue(*e.category));
  if (e.message) j["message"] = *e.message;
  return j;
}

AuditEntry auditEntryFromJson(const Json& j) {
  JsonDecode::object(j, "AuditEntry");
  AuditEntry e;
  auto id = j.find("id");
  if (id == j.end()) throw DecodeError("No value associated with key id");
  e.id = Uuid::fromJson(*id);
  auto date = j.find("date");
  if (date == j.end()) throw DecodeError("No value associated with key date");
  e.date = dateFromJson(*date, DateForm::iso8601);
  const auto action = auditActionFromRaw(JsonDecode::string(j, "action"));
  if (!action) throw DecodeError("Unknown action");
  e.action = *action;
  e.target = JsonDecode::string(j, "target");
  e.size = JsonDecode::int64(j, "size");
  if (JsonDecode::has(j, "category")) e.category = categoryFromJson(j.at("category"));
  auto trigger = j.find("trigger");
  if (trigger == j.end()) throw DecodeError("No value associated with key trigger");
  e.trigger = triggerSourceFromJson(*trigger);
  e.success = JsonDecode::boolean(j, "success");
  e.message = JsonDecode::optString(j, "message");
  return e;
}

std::optional<QuickAuditRecord> quickReadAuditLine(std::string_view line) {
  if (line.size() > AuditLog::kMaxLine) return std::nullopt;
  return QuickReader(line).read();
}

std::optional<AuditEntry> decodeAuditLine(std::string_view line) {
  if (line.size() > AuditLog::kMaxLine ||
      line.find_first_not_of(" \t\r") == std::string_view::npos) {
    return std::nullopt;
  }
  auto j = JsonText::parse(line);
  if (!j) return std::nullopt;
  try {
    return auditEntryFromJson(*j);
  } catch (const DecodeError&) {
    return std::nullopt;  // a damaged record is skipped; the ones around it still count
  }
}

void AuditLog::append(const std::vector<AuditEntry>& entries) noexcept {
  if (entries.empty()) return;
  try {
    std::lock_guard guard(*lock_);
    std::vector<std::string> lines;
    bool durable = false;
    for (const auto& e : entries) {
      if (e.id.empty()) {
        AuditEntry withID = e;
        withID.id = Uuid::make();
        lines.push_back(JsonText::compact(toJson(withID)));
      } else {
        lines.push_back(JsonText::compact(toJson(e)));
      }
      // Removals for good are worth a flush: their record is all that is left of the files.
      durable = durable || e.action == AuditAction::delete_ || e.action == AuditAction::purge;
    }
    // A log that cannot be written loses the records: logging never stops the work it records.
    (void)JsonLines(url_).append(lines, durable);
  } catch (const std::exception&) {
    // Out of memory while encoding: the records are lost, as with any other write failure.
  }
}

std::vector<AuditEntry> AuditLog::recent(size_t limit) const {
  std::vector<AuditEntry> out;
  JsonLines(url_).readNewestFirst(limit, [&](std::string_view line) {
    auto e = decodeAuditLine(line);
    if (e) out.push_back(std::move(*e));
    return e.has_value();
  });
  return out;
}

int64_t AuditLog::lifetimeFreed() const {
  int64_t total = 0;
  JsonLines(url_).readAll([&](std::string_view line) { return countLine(line, total); });
  return total;
}

}  // namespace kestrel
