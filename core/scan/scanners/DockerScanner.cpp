// Docker (and Podman on Linux): what the container engine could reclaim, as prune commands.
#include "core/scan/scanners/Scanners.h"

#include "core/base/Json.h"
#include "core/system/fs/FS.h"
#include "core/system/fs/FileStat.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdlib>
#include <map>

namespace kestrel {

std::optional<int64_t> parseToolSize(std::string_view text) {
  size_t i = 0;
  while (i < text.size() && text[i] == ' ') ++i;
  const size_t start = i;
  while (i < text.size() && (std::isdigit(static_cast<unsigned char>(text[i])) || text[i] == '.')) ++i;
  if (i == start) return std::nullopt;
  const std::string number(text.substr(start, i - start));
  char* end = nullptr;
  const double value = std::strtod(number.c_str(), &end);
  if (end != number.c_str() + number.size() || !std::isfinite(value) || value < 0) return std::nullopt;
  while (i < text.size() && text[i] == ' ') ++i;
  std::string unit;
  while (i < text.size() && std::isalpha(static_cast<unsigned char>(text[i])))
    unit += static_cast<char>(std::tolower(static_cast<unsigned char>(text[i++])));
  static const std::map<std::string, double> kUnits = {
      {"b", 1.0},     {"", 1.0},      {"kb", 1e3},           {"mb", 1e6},           {"gb", 1e9},
      {"tb", 1e12},   {"pb", 1e15},   {"kib", 1024.0},       {"mib", 1048576.0},    {"gib", 1073741824.0},
      {"tib", 1099511627776.0},       {"pib", 1125899906842624.0}, {"eb", 1e18}, {"eib", 1152921504606846976.0}};
  const auto it = kUnits.find(unit);
  if (it == kUnits.end()) return std::nullopt;
  const double bytes = std::round(value * it->second);
  if (bytes >= 9.2e18) return INT64_MAX;
  return static_cast<int64_t>(bytes);
}

namespace {

// `system df` answers within this time or the engine counts as not running.
constexpr double kTimeout = 15;

// One JSON object per line; lines that are not objects are skipped.
std::vector<Json> jsonLines(const std::string& text) {
  std::vector<Json> out;
  size_t pos = 0;
  while (pos < text.size()) {
    size_t end = text.find('\n', pos);
    if (end == std::string::npos) end = text.size();
    if (auto j = JsonText::parse(std::string_view(text).substr(pos, end - pos)); j && j->is_object())
      out.push_back(std::move(*j));
    pos = end + 1;
  }
  return out;
}

// The size a line gives for `key`: nothing when it gives none, kUnknownSize when the figure cannot
// be true (negative, or more than `volumeBytes`, the volume holding the engine's data).
std::optional<int64_t> sizeField(const Json& line, const char* key, std::optional<int64_t> volumeBytes) {
  const auto it = line.find(key);
  if (it == line.end() || !it->is_string()) return std::nullopt;
  std::string_view text = it->get_ref<const std::string&>();
  while (!text.empty() && text.front() == ' ') text.remove_prefix(1);
  const bool negative = !text.empty() && text.front() == '-';
  const auto size = parseToolSize(negative ? text.substr(1) : text);
  if (!size) return std::nullopt;
  if (negative || (volumeBytes && *size > *volumeBytes)) return ScanItem::kUnknownSize;
  return size;
}

// The size of the volume holding the engine's data: its usual data folders first, else the
// largest volume mounted (no true figure exceeds it); nothing when no volume answers.
std::optional<int64_t> dataVolumeBytes(const ScanContext& context, const std::string& tool) {
  const Paths& p = context.paths;
  const std::vector<fs::path> roots =
      p.layout() == Layout::macos ? std::vector<fs::path>{p.home() / "Library/Containers/com.docker.docker"}
      : tool == "docker"
          ? std::vector<fs::path>{p.systemRoot() / "var/lib/docker", p.dataHome() / "docker"}
          : std::vector<fs::path>{p.dataHome() / "containers", p.systemRoot() / "var/lib/containers"};
  for (const auto& root : roots)
    if (FS::isDirectory(root))
      if (const auto space = FS::volumeSpace(root)) return space->total;
  std::optional<int64_t> largest;
  for (const auto& mount : platform::mountPoints())
    if (const auto space = FS::volumeSpace(mount); space && (!largest || space->total > *largest))
      largest = space->total;
  return largest;
}

// Adds `size` to `total`; unknown stays unknown, a sum past the range saturates.
void addSize(int64_t& total, int64_t size) {
  if (total == ScanItem::kUnknownSize || size == ScanItem::kUnknownSize) total = ScanItem::kUnknownSize;
  else if (__builtin_add_overflow(total, size, &total)) total = INT64_MAX;
}

// The items of one engine: nothing when the tool is missing, fails or does not answer in time.
void scanEngine(const ScanContext& context, CleanCategory category, const std::string& tool, bool buildCache,
                std::vector<ScanItem>& items) {
  if (context.isCancelled()) return;
  context.report(category, tool);
  const Shell::Result df = context.runTool(tool, {"system", "df", "--format", "{{json .}}"}, kTimeout);
  if (!df.ok()) return;
  // The engine's own figures are checked: a broken or hostile tool must not make totals up.
  const auto volumeBytes = dataVolumeBytes(context, tool);
  std::map<std::string, int64_t> reclaimable;
  for (const auto& line : jsonLines(df.stdout)) {
    const auto type = line.find("Type");
    if (type == line.end() || !type->is_string()) continue;
    if (const auto size = sizeField(line, "Reclaimable", volumeBytes)) reclaimable[type->get<std::string>()] = *size;
  }
  if (reclaimable.empty() || context.isCancelled()) return;

  int64_t dangling = 0;
  size_t danglingCount = 0;
  const Shell::Result images =
      context.runTool(tool, {"image", "ls", "--filter", "dangling=true", "--format", "{{json .}}"}, kTimeout);
  if (images.ok()) {
    for (const auto& line : jsonLines(images.stdout)) {
      ++danglingCount;
      if (const auto size = sizeField(line, "Size", volumeBytes)) addSize(dangling, *size);
    }
  }
  if (volumeBytes && dangling > *volumeBytes) dangling = ScanItem::kUnknownSize;
  const auto reclaim = [&](std::string_view type) {
    const auto it = reclaimable.find(std::string(type));
    return it == reclaimable.end() ? int64_t{0} : it->second;
  };
  // Dangling images are part of what the images line calls reclaimable: the rest is unused images.
  const int64_t imageBytes = reclaim("Images");
  const int64_t unused = imageBytes == ScanItem::kUnknownSize || dangling == ScanItem::kUnknownSize
                             ? (imageBytes == 0 ? 0 : ScanItem::kUnknownSize)
                             : std::max<int64_t>(0, imageBytes - dangling);

  const auto add = [&](std::string_view id, std::string title, std::vector<std::string> arguments, int64_t size,
                       Risk risk, std::string_view reason) {
    if (size == 0) return;
    ScanItem item;
    item.id = tool + ":" + std::string(id);
    item.title = std::move(title);
    item.target = ItemTarget::forCommand({tool, std::move(arguments)});
    item.size = size;
    item.category = category;
    item.risk = risk;
    item.reason = std::string(reason);
    items.push_back(std::move(item));
  };
  const std::string name = tool == "docker" ? "Docker" : "Podman";
  if (buildCache)
    add("build-cache", name + " build cache", {"builder", "prune", "-f"}, reclaim("Build Cache"), Risk::safe,
        "Layers cached by image builds; built again when needed");
  add("dangling-images", name + " dangling images (" + std::to_string(danglingCount) + ")", {"image", "prune", "-f"},
      dangling, Risk::safe, "Untagged images no container uses; left behind by rebuilds");
  add("stopped-containers", name + " stopped containers", {"container", "prune", "-f"}, reclaim("Containers"),
      Risk::review, "Containers that are not running; their files and logs go with them");
  add("unused-images", name + " unused images", {"image", "prune", "-a", "-f"}, unused, Risk::review,
      "Images no container uses; downloaded or built again when next needed");
  add("unused-volumes", name + " unused volumes", {"volume", "prune", "-f"}, reclaim("Local Volumes"), Risk::caution,
      "Volumes no container uses; they may hold data such as databases");
}

}  // namespace

std::vector<ScanItem> DockerScanner::scan(const ScanContext& context) const {
  std::vector<ScanItem> items;
  scanEngine(context, category(), "docker", true, items);
  // Podman keeps no separate build cache to prune.
  if (context.paths.layout() == Layout::linux) scanEngine(context, category(), "podman", false, items);
  return items;
}

}  // namespace kestrel
