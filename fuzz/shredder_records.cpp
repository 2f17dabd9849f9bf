// Fuzz target: the decoders of the shredder's settings, events and review candidates and of the
// administrator queue. The first byte picks the decoder; whatever decodes writes back and reads
// back as the same record.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "core/clean/AdminQueue.h"
#include "core/shredder/ShredderModel.h"
#include "fuzz/Check.h"

using namespace kestrel;

namespace {

// Decodes, writes back pretty (as the stores do) and decodes again: the same record.
template <class Decode, class Encode>
void roundTrip(const Json& json, Decode decode, Encode encode) {
  decltype(decode(json)) record;
  try {
    record = decode(json);
  } catch (const DecodeError&) {
    return;
  }
  const auto written = JsonText::parse(JsonText::pretty(encode(record)));
  FUZZ_CHECK(written);
  FUZZ_CHECK(decode(*written) == record);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const auto json =
      JsonText::parse(std::string_view(reinterpret_cast<const char*>(data) + 1, size - 1));
  if (!json) return 0;
  switch (data[0] % 4) {
    case 0:
      roundTrip(*json, shredderSettingsFromJson,
                [](const ShredderSettings& s) { return toJson(s); });
      break;
    case 1:
      roundTrip(*json, shredEventFromJson, [](const ShredEvent& e) { return toJson(e); });
      break;
    case 2:
      roundTrip(*json, shredCandidateFromJson, [](const ShredCandidate& c) { return toJson(c); });
      break;
    default:
      roundTrip(*json, adminQueueFromJson,
                [](const std::vector<ScanItem>& items) { return toJson(items); });
      break;
  }
  return 0;
}
