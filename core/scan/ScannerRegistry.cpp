// Scanner registry: which scanner serves which category.
#include "core/scan/ScanEngine.h"
#include "core/scan/scanners/Scanners.h"

namespace kestrel::ScannerRegistry {
namespace {

// A category without a row has no scanner in this build: it yields no result at all.
std::unique_ptr<JunkScanner> make(CleanCategory c) {
#define KESTREL_MAKE_SCANNER(cat, Class) \
  if (c == CleanCategory::cat) return std::make_unique<Class>();
  KESTREL_SCANNERS(KESTREL_MAKE_SCANNER)
#undef KESTREL_MAKE_SCANNER
  return nullptr;
}

}  // namespace

std::vector<std::unique_ptr<JunkScanner>> scanners(const std::set<CleanCategory>& categories) {
  std::vector<std::unique_ptr<JunkScanner>> out;
  for (CleanCategory c : categories)
    if (auto s = make(c)) out.push_back(std::move(s));
  return out;
}

std::set<CleanCategory> scannable() {
  std::set<CleanCategory> out;
  for (CleanCategory c : allCategories())
    if (make(c)) out.insert(c);
  return out;
}

}  // namespace kestrel::ScannerRegistry
