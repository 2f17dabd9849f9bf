// Fuzz target: the agent state, a background-item record of the baseline, and the JSON-lines
// reader behind the audit log and the shredder history. The first byte picks the reader. Records
// that decode write back and read back the same; the JSON-lines reader takes the same lines read
// from the start as read from the end.

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>
#include <vector>

#include "core/schedule/AgentState.h"
#include "core/schedule/Persistence.h"
#include "core/store/JsonLines.h"
#include "fuzz/Check.h"

using namespace kestrel;

namespace {

template <class Decode, class Encode>
void roundTrip(std::string_view text, Decode decode, Encode encode) {
  const auto json = JsonText::parse(text);
  if (!json) return;
  decltype(decode(*json)) record;
  try {
    record = decode(*json);
  } catch (const DecodeError&) {
    return;
  }
  const auto written = JsonText::parse(JsonText::pretty(encode(record)));
  FUZZ_CHECK(written);
  FUZZ_CHECK(decode(*written) == record);
}

void jsonLines(std::string_view text) {
  static const FuzzScratch scratch("kestrel-fuzz-lines");
  const std::filesystem::path& file = scratch.path();
  std::ofstream(file, std::ios::binary | std::ios::trunc)
      .write(text.data(), static_cast<std::streamsize>(text.size()));
  const JsonLines lines(file);
  // A line counts when it parses as JSON, as the stores' readers decide.
  std::vector<std::string> forward, backward;
  const auto a = lines.readAll([&](std::string_view line) {
    if (!JsonText::parse(line)) return false;
    forward.emplace_back(line);
    return true;
  });
  const auto b = lines.readNewestFirst(SIZE_MAX, [&](std::string_view line) {
    if (!JsonText::parse(line)) return false;
    backward.emplace_back(line);
    return true;
  });
  FUZZ_CHECK(a.taken == forward.size() && b.taken == backward.size());
  FUZZ_CHECK(std::vector<std::string>(backward.rbegin(), backward.rend()) == forward);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const std::string_view text(reinterpret_cast<const char*>(data) + 1, size - 1);
  switch (data[0] % 3) {
    case 0:
      roundTrip(text, agentStateFromJson, [](const AgentState& s) { return toJson(s); });
      break;
    case 1:
      roundTrip(text, persistenceItemFromJson, [](const PersistenceItem& i) { return toJson(i); });
      break;
    default:
      jsonLines(text);
      break;
  }
  return 0;
}
