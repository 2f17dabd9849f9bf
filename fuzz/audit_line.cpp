// Fuzz target: one audit log line. The quick reader never accepts what the full decoder rejects
// and agrees with it; a decoded record writes and reads back the same.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "core/store/AuditLog.h"
#include "fuzz/Check.h"

using namespace kestrel;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view line(reinterpret_cast<const char*>(data), size);
  const auto full = decodeAuditLine(line);
  if (const auto quick = quickReadAuditLine(line)) {
    FUZZ_CHECK(full);
    FUZZ_CHECK(quick->action == full->action);
    FUZZ_CHECK(quick->size == full->size);
    FUZZ_CHECK(quick->success == full->success);
  }
  if (full) {
    const std::string written = JsonText::compact(toJson(*full));
    const auto again = decodeAuditLine(written);
    FUZZ_CHECK(again && *again == *full);
  }
  return 0;
}
