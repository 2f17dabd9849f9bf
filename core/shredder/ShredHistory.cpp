// ShredHistory: whole-line appends and tolerant reads through JsonLines.
#include "core/shredder/ShredHistory.h"

#include <algorithm>

namespace kestrel {

void ShredHistory::append(const ShredEvent& event) noexcept {
  try {
    const std::string line = JsonText::compact(toJson(event));
    std::lock_guard<std::mutex> guard(*lock_);
    (void)file_.append({line}, false);  // best effort: the history never stops a disposal
  } catch (const std::exception&) {
    // Encoding ran out of memory: the record is lost, as any history write error.
  }
}

std::vector<ShredEvent> ShredHistory::events(size_t limit) const {
  std::vector<ShredEvent> newestFirst;
  if (limit == 0) return newestFirst;
  // Every line counts toward the limit; those that do not decode are then left out.
  (void)file_.readNewestFirst(limit, [&](std::string_view line) {
    if (auto j = JsonText::parse(line)) {
      try {
        newestFirst.push_back(shredEventFromJson(*j));
      } catch (const DecodeError&) {
        // not a record of this history: skipped
      }
    }
    return true;
  });
  std::reverse(newestFirst.begin(), newestFirst.end());
  return newestFirst;
}

ShredStats ShredHistory::stats(int64_t days, Date now) const {
  ShredStats out;
  const Date since = Dates::minusDays(now, days);
  std::map<std::string, int64_t> perDay;
  for (const auto& e : events()) {
    if (e.date < since || e.date > now) continue;
    ++out.count;
    if (__builtin_add_overflow(out.bytes, e.size, &out.bytes)) out.bytes = std::numeric_limits<int64_t>::max();
    ++out.byRule[e.rule];
    ++perDay[Dates::local(e.date, "yyyy-MM-dd")];
  }
  int64_t best = 0;
  for (const auto& [day, n] : perDay) {
    if (n > best) {
      best = n;
      out.busiestDay = day;
    }
  }
  return out;
}

}  // namespace kestrel
