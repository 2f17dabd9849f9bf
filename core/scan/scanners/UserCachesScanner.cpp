// User caches: the app caches of the user's cache folders of at least 64 KiB.
#include "core/scan/scanners/Locations.h"
#include "core/scan/scanners/Scanners.h"

#include <algorithm>

namespace kestrel {
namespace {

using scanners::Base, scanners::On, scanners::Shape;

bool notExcluded(const scanners::Child& child) {
  return std::find(kCacheExclusions.begin(), kCacheExclusions.end(), child.name) == kCacheExclusions.end();
}
bool notExcludedOnLinux(const scanners::Child& child) {
  return std::find(kLinuxCacheExclusions.begin(), kLinuxCacheExclusions.end(), child.name) ==
         kLinuxCacheExclusions.end();
}

constexpr scanners::Location kLocations[] = {
    {On::macos, Base::library, "Caches", Shape::children, {}, notExcluded},
    {On::linux, Base::cache, "", Shape::children, {}, notExcludedOnLinux},
    // Sandboxed apps: one item per app.
    {On::linux, Base::home, ".var/app/*/cache", Shape::self},
    {On::linux, Base::home, "snap/*/common/.cache", Shape::self},
    // Java's download cache of applets and launched applications.
    {On::linux, Base::home, ".java/deployment/cache", Shape::self, "Java deployment cache"},
    // Chromium-based apps keep their caches beside their settings.
    {On::linux, Base::config, "*/Cache", Shape::self, "Cache"},
    {On::linux, Base::config, "*/Code Cache", Shape::self, "Code Cache"},
    {On::linux, Base::config, "*/GPUCache", Shape::self, "GPUCache"},
    {On::linux, Base::config, "*/Service Worker/CacheStorage", Shape::self, "Service Worker cache"},
    // Shader caches of Chromium-based apps, beside their profiles ("<App>/", "<Maker>/<App>/").
    {On::linux, Base::config, "*/ShaderCache", Shape::self, "ShaderCache"},
    {On::linux, Base::config, "*/GrShaderCache", Shape::self, "GrShaderCache"},
    {On::linux, Base::config, "*/DawnCache", Shape::self, "DawnCache"},
    {On::linux, Base::config, "*/*/ShaderCache", Shape::self, "ShaderCache"},
    {On::linux, Base::config, "*/*/GrShaderCache", Shape::self, "GrShaderCache"},
    {On::linux, Base::config, "*/*/DawnCache", Shape::self, "DawnCache"},
    // Chromium-based browsers keep the same folders in each profile ("google-chrome/Default",
    // "BraveSoftware/Brave-Browser/Profile 1").
    {On::linux, Base::config, "*/*/Cache", Shape::self, "Cache"},
    {On::linux, Base::config, "*/*/Code Cache", Shape::self, "Code Cache"},
    {On::linux, Base::config, "*/*/GPUCache", Shape::self, "GPUCache"},
    {On::linux, Base::config, "*/*/Service Worker/CacheStorage", Shape::self,
     "Service Worker cache"},
    {On::linux, Base::config, "*/*/*/Cache", Shape::self, "Cache"},
    {On::linux, Base::config, "*/*/*/Code Cache", Shape::self, "Code Cache"},
    {On::linux, Base::config, "*/*/*/GPUCache", Shape::self, "GPUCache"},
    {On::linux, Base::config, "*/*/*/Service Worker/CacheStorage", Shape::self,
     "Service Worker cache"},
    // and so do the snap-packaged ones, in their own folder ("snap/chromium/common/chromium/Default").
    {On::linux, Base::home, "snap/*/common/*/*/Cache", Shape::self, "Cache"},
    {On::linux, Base::home, "snap/*/common/*/*/Code Cache", Shape::self, "Code Cache"},
    {On::linux, Base::home, "snap/*/common/*/*/GPUCache", Shape::self, "GPUCache"},
    {On::linux, Base::home, "snap/*/common/*/*/Service Worker/CacheStorage", Shape::self,
     "Service Worker cache"},
    // Folders their owners tagged as caches, in the home's top two levels.
    {On::linux, Base::home, "", Shape::taggedChildren},
    {On::linux, Base::home, "*", Shape::taggedChildren},
};

}  // namespace

std::vector<ScanItem> UserCachesScanner::scan(const ScanContext& context) const {
  constexpr int64_t kMinimumSize = 65536;  // smaller caches are not worth listing
  std::vector<ScanItem> items;
  scanners::forEachLocation(context, category(), kLocations, [&](const scanners::Found& found) {
    const auto& child = found.child;
    if (!context.oldEnough(child.modified())) return;
    const int64_t size = scanners::measure(child, context.isCancelled);
    if (size < kMinimumSize) return;
    ScanItem item = scanners::makeItem(child, size, category(), Risk::safe,
                                       "App cache; rebuilt automatically when needed", child.lastUsed());
    item.title = found.title();
    items.push_back(std::move(item));
  });
  return items;
}

}  // namespace kestrel
