// Xcode and simulator scanners on a macOS-shaped scratch home: what each folder offers, and nothing
// on a Linux-shaped one.
#include "core/scan/scanners/Scanners.h"

#include "tests/support/FakeTools.h"
#include "tests/support/ScratchHome.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>

namespace kestrel {
namespace {

using test::FakeTools;
using test::ScratchHome;

constexpr const char* kDevA = "1A2B3C4D-0000-4000-8000-00000000000A";
constexpr const char* kDevB = "1A2B3C4D-0000-4000-8000-00000000000B";
constexpr const char* kDevC = "1A2B3C4D-0000-4000-8000-00000000000C";

// Items by home-relative id (command items by their own id) with their risk.
std::map<std::string, Risk> scan(CleanCategory category, const ScratchHome& h, Layout layout, const Services& s = {}) {
  ScanContext context{Paths(h.home(), layout), AppConfig{}, test::kTestNow};
  context.services = s;
  auto scanners = ScannerRegistry::scanners({category});
  std::map<std::string, Risk> out;
  for (const auto& i : scanners.front()->scan(context)) {
    const auto rel = fs::path(i.id).lexically_relative(h.home());
    out[i.path() ? rel.string() : i.id] = i.risk;
  }
  return out;
}

void aged(ScratchHome& h, const std::string& rel, int64_t bytes, double days) { h.aged(rel, bytes, days, test::kTestNow); }

TEST(XcodeScanner, BuildDataOldArchivesOlderSymbolsAndTheCache) {
  ScratchHome h;
  const std::string xc = "Library/Developer/Xcode/";
  aged(h, xc + "DerivedData/App-abc/Build/x.o", 5000, 2);
  aged(h, xc + "DerivedData/ModuleCache.noindex/m.pcm", 5000, 2);
  aged(h, xc + "DerivedData/Fresh-def/Build/x.o", 5000, 0);  // being built now
  aged(h, xc + "Archives/2023-01-10/App 2023-01-10 09.00.xcarchive/Info.plist", 100, 400);
  aged(h, xc + "Archives/2025-11-01/App 2025-11-01 09.00.xcarchive/Info.plist", 100, 20);
  aged(h, xc + "Archives/2023-01-10/notes.txt", 100, 400);
  aged(h, xc + "iOS DeviceSupport/16.4.1 (20E252) arm64e/Symbols/lib", 5000, 90);
  aged(h, xc + "iOS DeviceSupport/iPhone15,2 17.2 (21C62)/Symbols/lib", 5000, 30);
  aged(h, xc + "iOS DeviceSupport/iPhone15,2 17.10 (21X1)/Symbols/lib", 5000, 10);
  aged(h, xc + "iOS DeviceSupport/iPhone14,5 17.10 (21X1)/Symbols/lib", 5000, 10);
  aged(h, xc + "iOS DeviceSupport/Unknown device/Symbols/lib", 5000, 300);
  aged(h, xc + "watchOS DeviceSupport/10.1 (21S71)/Symbols/lib", 5000, 10);  // the only one
  aged(h, "Library/Caches/com.apple.dt.Xcode/db", 5000, 2);
  const std::map<std::string, Risk> expected = {
      {xc + "DerivedData/App-abc", Risk::safe},
      {xc + "DerivedData/ModuleCache.noindex", Risk::safe},
      {xc + "Archives/2023-01-10/App 2023-01-10 09.00.xcarchive", Risk::review},
      {xc + "iOS DeviceSupport/16.4.1 (20E252) arm64e", Risk::review},
      {xc + "iOS DeviceSupport/iPhone15,2 17.2 (21C62)", Risk::review},
      {"Library/Caches/com.apple.dt.Xcode", Risk::safe},
  };
  EXPECT_EQ(scan(CleanCategory::xcode, h, Layout::macos), expected);
  EXPECT_TRUE(scan(CleanCategory::xcode, h, Layout::linux).empty());
}

TEST(SimulatorsScanner, UnavailableDevicesThroughSimctlAndTheCaches) {
  const std::string listing = std::string(R"({"devices":{"com.apple.CoreSimulator.SimRuntime.iOS-15-0":[)") +
                              R"({"udid":")" + kDevA + R"(","isAvailable":false,"name":"iPhone 8"},)" +
                              R"({"udid":")" + kDevB + R"(","isAvailable":false,"name":"iPad"},)" +
                              R"({"udid":"../../../Documents","isAvailable":false},)" +
                              R"({"udid":")" + kDevC + R"(","isAvailable":true}]}})";
  const struct Case {
    const char* name;
    std::string out;  // of `xcrun simctl list devices unavailable --json`; empty: xcrun fails
    int64_t size;     // of the command item; -1: none
  } cases[] = {
      {"two unavailable devices, one without a folder", listing, 3 * 4096},
      {"none unavailable", R"({"devices":{}})", -1},
      {"xcrun fails", "", -1},
      {"damaged listing", "{\"devices\":", -1},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    ScratchHome h;
    FakeTools tools(h.root());
    if (c.out.empty()) tools.tool("xcrun", "", 72, "xcrun: error: unable to find utility");
    else tools.tool("xcrun", c.out);
    const std::string devices = "Library/Developer/CoreSimulator/Devices/";
    aged(h, devices + kDevA + "/data/a", 4096, 5);
    aged(h, devices + kDevA + "/data/b", 4096, 5);
    aged(h, devices + kDevC + "/data/c", 4096, 5);  // available: not counted
    aged(h, "Documents/keep", 4096, 5);
    aged(h, devices + kDevA + "/device.plist", 4096, 5);
    aged(h, "Library/Developer/CoreSimulator/Caches/dyld/x", 4096, 3);

    ScanContext context{Paths(h.home(), Layout::macos), AppConfig{}, test::kTestNow};
    const auto items = SimulatorsScanner().scan(context);
    std::map<std::string, int64_t> sizes;
    for (const auto& i : items) sizes[i.id] = i.size;
    std::map<std::string, int64_t> expected = {{h.path("Library/Developer/CoreSimulator/Caches").string(), 4096}};
    if (c.size >= 0) {
      expected["simulators:unavailable"] = c.size;
      const auto command = std::find_if(items.begin(), items.end(), [](const ScanItem& i) { return !i.path(); });
      ASSERT_NE(command, items.end());
      EXPECT_EQ(command->target, ItemTarget::forCommand({"xcrun", {"simctl", "delete", "unavailable"}}));
      EXPECT_EQ(command->title, "Unavailable simulators (2)");
    }
    EXPECT_EQ(sizes, expected);
    EXPECT_EQ(tools.calls("xcrun"), (std::vector<std::vector<std::string>>{
                                        {"simctl", "list", "devices", "unavailable", "--json"}}));
    ScanContext linuxHome{Paths(h.home(), Layout::linux), AppConfig{}, test::kTestNow};
    EXPECT_TRUE(SimulatorsScanner().scan(linuxHome).empty());
  }
}

}  // namespace
}  // namespace kestrel
