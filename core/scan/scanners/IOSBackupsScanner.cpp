// iPhone/iPad backups: each backup folder, named after its device from the backup's "Info.plist".
#include "core/system/fs/QuietRead.h"
#include "core/scan/scanners/ChildScan.h"
#include "core/scan/scanners/Scanners.h"

#include <plist/plist.h>

#include <algorithm>
#include <cstdint>
#include <memory>

namespace kestrel {
namespace {

constexpr size_t kMaxInfoBytes = 8 * 1024 * 1024;

// The C interface on purpose: libplist++ 2.2 leaks the children of every array it frees, and a
// device's Info.plist holds arrays ("Installed Applications").
struct PlistFree {
  void operator()(void* node) const { plist_free(static_cast<plist_t>(node)); }
};
using PlistPtr = std::unique_ptr<void, PlistFree>;

std::optional<std::string> stringValue(plist_t dict, const char* key) {
  plist_t node = plist_dict_get_item(dict, key);
  if (!node || plist_get_node_type(node) != PLIST_STRING) return std::nullopt;
  uint64_t length = 0;
  const char* value = plist_get_string_ptr(node, &length);
  if (!value || length == 0) return std::nullopt;
  return std::string(value, length);
}

std::optional<Date> dateValue(plist_t dict, const char* key) {
  plist_t node = plist_dict_get_item(dict, key);
  if (!node || plist_get_node_type(node) != PLIST_DATE) return std::nullopt;
  int32_t sec = 0, usec = 0;  // since 2001
  plist_get_date_val(node, &sec, &usec);
  return Dates::fromReferenceSeconds(static_cast<double>(sec) + static_cast<double>(usec) / 1e6);
}

}  // namespace

std::optional<BackupInfo> parseBackupInfo(const std::vector<char>& bytes) {
  if (bytes.empty() || bytes.size() > UINT32_MAX) return std::nullopt;
  static constexpr char kBinaryMagic[] = "bplist00";
  const auto length = static_cast<uint32_t>(bytes.size());
  plist_t parsed = nullptr;
  if (bytes.size() >= 8 && std::equal(kBinaryMagic, kBinaryMagic + 8, bytes.begin()))
    plist_from_bin(bytes.data(), length, &parsed);
  else
    plist_from_xml(bytes.data(), length, &parsed);
  const PlistPtr root(parsed);
  if (!root || plist_get_node_type(parsed) != PLIST_DICT) return std::nullopt;
  BackupInfo info;
  info.deviceName = stringValue(parsed, "Device Name");
  if (!info.deviceName) info.deviceName = stringValue(parsed, "Display Name");
  info.lastBackup = dateValue(parsed, "Last Backup Date");
  return info;
}

std::vector<ScanItem> IOSBackupsScanner::scan(const ScanContext& context) const {
  if (context.paths.layout() != Layout::macos) return {};  // a macOS home's folder only
  std::vector<ScanItem> items;
  scanners::forEachChild(context, category(), context.lib("Application Support/MobileSync/Backup"),
                         [&](const scanners::Child& child) {
                           if (!child.isDirectory()) return;
                           if (!context.oldEnough(child.modified())) return;
                           const int64_t size = scanners::measure(child, context.isCancelled);
                           if (size < 1) return;
                           BackupInfo info;
                           if (auto bytes = platform::readFileQuietly(child.path / "Info.plist", kMaxInfoBytes))
                             if (auto parsed = parseBackupInfo(*bytes)) info = *parsed;
                           const std::string when = info.lastBackup ? Dates::local(*info.lastBackup, "yyyy-MM-dd")
                                                                    : std::string("an unknown date");
                           ScanItem item = scanners::makeItem(
                               child, size, category(), Risk::caution,
                               "Device backup from " + when + ". Keep at least one recent backup.",
                               info.lastBackup ? info.lastBackup : child.lastUsed());
                           if (info.deviceName) item.title = *info.deviceName;
                           items.push_back(std::move(item));
                         });
  return items;
}

}  // namespace kestrel
