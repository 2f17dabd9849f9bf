// JSONStore: parsing whole store files and writing them in the one JSON form.
#include "core/store/JSONStore.h"

namespace kestrel::JSONStore {

std::optional<Json> loadJson(const fs::path& url) noexcept {
  auto text = StoreFile::readFile(url);
  if (!text) return std::nullopt;
  return JsonText::parse(*text);
}

void save(const Json& value, const fs::path& url) { StoreFile::writeAtomically(JsonText::pretty(value), url); }

}  // namespace kestrel::JSONStore
