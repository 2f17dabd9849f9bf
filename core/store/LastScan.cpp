// LastScan: one object per category, changed through the store's locked read-modify-write.
#include "core/store/LastScan.h"

#include "core/store/JSONStore.h"

namespace kestrel {

Json toJson(const LastScan& s) {
  Json j = Json::object();
  for (const auto& [c, f] : s.categories)
    j[std::string(rawValue(c))] = {{"bytes", f.bytes}, {"items", f.items}, {"date", Dates::iso8601(f.date)}};
  return j;
}

LastScan lastScanFromJson(const Json& j) {
  JsonDecode::object(j, "LastScan");
  LastScan s;
  for (const auto& [key, value] : j.items()) {
    const auto c = categoryFromRaw(key);
    if (!c) continue;  // a category this version does not know
    JsonDecode::object(value, "LastScan.Found");
    if (!JsonDecode::has(value, "date")) throw DecodeError("No value associated with key date");
    s.categories[*c] = {JsonDecode::int64(value, "bytes"), JsonDecode::int64(value, "items"),
                        dateFromJson(value.at("date"), DateForm::iso8601)};
  }
  return s;
}

LastScan LastScan::load(const Paths& paths) {
  return JSONStore::load<LastScan>(paths.lastScanFile(), lastScanFromJson).value_or(LastScan{});
}

void LastScan::record(const Paths& paths, const std::vector<CategoryResult>& results, Date now) noexcept {
  try {
    JSONStore::update<LastScan>(
        paths.lastScanFile(), lastScanFromJson, [](const LastScan& s) { return toJson(s); }, [] { return LastScan{}; },
        [&](LastScan& s) {
          for (const auto& r : results)
            s.categories[r.category] = {r.totalSize(), static_cast<int64_t>(r.items.size()), now};
          return true;
        },
        /*replaceDamaged=*/true);
  } catch (const std::exception&) {
    // The figures are only for the metrics: the next scan writes them again.
  }
}

}  // namespace kestrel
