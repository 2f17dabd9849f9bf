// iPhone/iPad backups: each backup folder, named after its device from the backup's "Info.plist".
#include "core/platform/QuietRead.h"
#include "core/scan/scanners/ChildScan.h"
#include "core/scan/scanners/Scanners.h"

#include <plist/plist++.h>

#include <memory>

namespace kestrel {
namespace {

constexpr size_t kMaxInfoBytes = 8 * 1024 * 1024;

std::optional<std::string> stringValue(PList::Dictionary& dict, const std::string& key) {
  auto it = dict.Find(key);
  if (it == dict.End() || !it->second || it->second->GetType() != PLIST_STRING) return std::nullopt;
  std::string value = static_cast<PList::String*>(it->second)->GetValue();
  if (value.empty()) return std::nullopt;
  return value;
}

std::optional<Date> dateValue(PList::Dictionary& dict, const std::string& key) {
  auto it = dict.Find(key);
  if (it == dict.End() || !it->second || it->second->GetType() != PLIST_DATE) return std::nullopt;
  const timeval tv = static_cast<PList::Date*>(it->second)->GetValue();  // seconds since 2001
  return Dates::fromReferenceSeconds(static_cast<double>(tv.tv_sec) + static_cast<double>(tv.tv_usec) / 1e6);
}

}  // namespace

std::optional<BackupInfo> parseBackupInfo(const std::vector<char>& bytes) {
  if (bytes.empty()) return std::nullopt;
  std::unique_ptr<PList::Structure> root;
  static constexpr char kBinaryMagic[] = "bplist00";
  if (bytes.size() >= 8 && std::equal(kBinaryMagic, kBinaryMagic + 8, bytes.begin()))
    root.reset(PList::Structure::FromBin(bytes));
  else
    root.reset(PList::Structure::FromXml(std::string(bytes.begin(), bytes.end())));
  if (!root || root->GetType() != PLIST_DICT) return std::nullopt;
  auto& dict = static_cast<PList::Dictionary&>(*root);
  BackupInfo info;
  info.deviceName = stringValue(dict, "Device Name");
  if (!info.deviceName) info.deviceName = stringValue(dict, "Display Name");
  info.lastBackup = dateValue(dict, "Last Backup Date");
  return info;
}

std::vector<ScanItem> IOSBackupsScanner::scan(const ScanContext& context) const {
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
