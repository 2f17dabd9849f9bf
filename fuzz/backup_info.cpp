// Fuzz target: a device backup's property list (XML or binary), as found on disk.
#include <cstddef>
#include <cstdint>
#include <vector>

#include "core/scan/scanners/Scanners.h"

using namespace kestrel;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::vector<char> bytes(data, data + size);
  parseBackupInfo(bytes);
  return 0;
}
