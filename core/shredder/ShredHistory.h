// ShredHistory: the append-only JSON-lines record of what the shredder did.
#pragma once

#include "core/shredder/ShredderModel.h"
#include "core/store/JsonLines.h"
#include "core/system/Paths.h"

#include <limits>
#include <memory>
#include <mutex>

namespace kestrel {

class ShredHistory {
 public:
  explicit ShredHistory(const Paths& paths) : file_(paths.shredderHistoryFile()) {}
  // Adds the event as one whole line (so a reader never sees half of it). Best effort: an error
  // loses the record. Safe from several threads and processes.
  void append(const ShredEvent& event) noexcept;
  // The events of the last `limit` lines, oldest first; lines that do not decode are dropped.
  std::vector<ShredEvent> events(size_t limit = std::numeric_limits<size_t>::max()) const;
  // Totals of the events dated within the last `days` days up to `now`; the busiest day is
  // the local calendar day with most events (the earliest of equals).
  ShredStats stats(int64_t days, Date now) const;

 private:
  JsonLines file_;
  std::unique_ptr<std::mutex> lock_ = std::make_unique<std::mutex>();
};

}  // namespace kestrel
