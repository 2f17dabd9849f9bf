// ShredderStore: the settings file, read strictly and written whole.
#include "core/shredder/ShredderStore.h"

#include "core/store/JSONStore.h"

namespace kestrel {

ShredderSettings ShredderStore::load() const {
  return JSONStore::load<ShredderSettings>(paths_.shredderSettingsFile(), shredderSettingsFromJson)
      .value_or(ShredderSettings{});
}

void ShredderStore::save(const ShredderSettings& settings) const {
  JSONStore::save(toJson(settings), paths_.shredderSettingsFile());
}

}  // namespace kestrel
