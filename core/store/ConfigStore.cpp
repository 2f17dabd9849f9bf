// ConfigStore: reading and writing the settings file.
#include "core/store/ConfigStore.h"

namespace kestrel {

AppConfig ConfigStore::load() const { return loadChecked().value.value_or(AppConfig{}); }

JSONStore::Loaded<AppConfig> ConfigStore::loadChecked() const {
  return JSONStore::loadChecked<AppConfig>(paths_.configFile(), appConfigFromJson);
}

std::string ConfigStore::damagedMessage(const std::string& reason) const {
  return "Settings file " + paths_.configFile().string() + " is damaged (" + reason +
         "); nothing was removed. Fix it or delete it.";
}

void ConfigStore::save(const AppConfig& config) const { JSONStore::save(toJson(config), paths_.configFile()); }

}  // namespace kestrel
