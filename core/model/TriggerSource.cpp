// Trigger sources: their labels and JSON form.
#include "core/model/TriggerSource.h"

namespace kestrel {

std::string TriggerSource::label() const {
  switch (kind) {
    case Kind::manual:
      return "Manual";
    case Kind::schedule:
      return "Schedule: " + name;
    case Kind::uninstall:
      return "Uninstall: " + name;
  }
  return "Manual";
}

Json toJson(const TriggerSource& t) {
  switch (t.kind) {
    case TriggerSource::Kind::manual:
      return Json{{"manual", Json::object()}};
    case TriggerSource::Kind::schedule:
      return Json{{"schedule", Json{{"ruleName", t.name}}}};
    case TriggerSource::Kind::uninstall:
      return Json{{"uninstall", Json{{"appName", t.name}}}};
  }
  return Json{{"manual", Json::object()}};
}

TriggerSource triggerSourceFromJson(const Json& j) {
  if (!j.is_object()) throw DecodeError("Expected an object for TriggerSource");
  if (j.size() != 1) throw DecodeError("Invalid number of keys found, expected one.");
  const auto it = j.begin();
  if (!it.value().is_object()) throw DecodeError("Expected an object for case " + it.key());
  if (it.key() == "schedule") return TriggerSource::schedule(JsonDecode::string(it.value(), "ruleName"));
  if (it.key() == "uninstall") return TriggerSource::uninstall(JsonDecode::string(it.value(), "appName"));
  if (it.key() == "manual") return TriggerSource::manual();
  throw DecodeError("Unknown case " + it.key() + " of TriggerSource");
}

}  // namespace kestrel
