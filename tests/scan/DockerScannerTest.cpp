// Docker scanner: sizes read from a fake engine's answers, silence without one, and the exact
// prune commands the cleaner runs.
#include "core/clean/Cleaner.h"
#include "core/scan/scanners/Scanners.h"

#include "tests/support/FakeTools.h"
#include "tests/support/ScratchHome.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <map>

namespace kestrel {
namespace {

using test::FakeTools;
using test::ScratchHome;

// Captured from `docker system df --format '{{json .}}'` and `docker image ls --filter
// dangling=true --format '{{json .}}'`, with a damaged line added.
constexpr const char* kSystemDf =
    R"j({"Active":"2","Reclaimable":"1.2GB (50%)","Size":"2.4GB","TotalCount":"6","Type":"Images"})j"
    "\n"
    R"j({"Active":"1","Reclaimable":"48.5MB (97%)","Size":"50MB","TotalCount":"4","Type":"Containers"})j"
    "\n"
    R"j({"Active":"0","Reclaimable":"0B","Size":"0B","TotalCount":"0","Type":"Local Volumes"})j"
    "\n"
    R"j({"Active":"0","Reclaimable":"731.4kB","Size":"731.4kB","TotalCount":"12","Type":"Build Cache"})j"
    "\n{\"Type\":\n";
constexpr const char* kDangling =
    R"j({"Containers":"N/A","CreatedSince":"3 weeks ago","ID":"5f1d2c","Repository":"<none>","Size":"150MB","Tag":"<none>"})j"
    "\n"
    R"j({"Containers":"N/A","CreatedSince":"2 months ago","ID":"9a0b1c","Repository":"<none>","Size":"50MB","Tag":"<none>"})j"
    "\n";

// Runs tools as Shell does, but only from the fake folder (never an engine installed on the
// machine) and with time-outs cut to half a second so a hanging fake costs little.
Services fakeServices(const FakeTools& tools) {
  Services s;
  s.run = [bin = tools.bin()](const std::string& tool, const std::vector<std::string>& args, double timeout) {
    const auto found = Shell::which(tool);
    if (!found || fs::path(*found).parent_path() != bin) return Shell::Result{127, "", tool + " not found"};
    return Shell::run(*found, args, std::min(timeout, 0.5));
  };
  return s;
}

std::vector<ScanItem> scanDocker(const ScratchHome& h, const Services& services, Layout layout = Layout::linux) {
  ScanContext context{Paths(h.home(), layout).withSystemRoot(h.root() / "system"), AppConfig{}, test::kTestNow};
  context.services = services;
  return DockerScanner().scan(context);
}

// The fake docker answers `system df` and `image ls` with the given texts.
void fakeDocker(FakeTools& tools, const std::string& tool, const std::string& df, const std::string& images) {
  tools.script(tool, "echo \"$*\" >> \"$0.calls\"\ncase \"$1\" in\n  system) printf '%s' '" + df +
                         "' ;;\n  image) [ \"$2\" = ls ] && printf '%s' '" + images + "' ;;\nesac\nexit 0");
}

TEST(DockerScanner, SizesFromTheEngineAndSilenceWithoutOne) {
  const struct Case {
    const char* name;
    std::function<void(FakeTools&)> setup;
    std::map<std::string, int64_t> sizes;  // id → size
  } cases[] = {
      {"captured answers",
       [](FakeTools& t) { fakeDocker(t, "docker", kSystemDf, kDangling); },
       {{"docker:build-cache", 731400},
        {"docker:dangling-images", 200000000},
        {"docker:stopped-containers", 48500000},
        {"docker:unused-images", 1000000000}}},
      {"no docker", [](FakeTools&) {}, {}},
      {"daemon not running", [](FakeTools& t) { t.tool("docker", "", 1, "Cannot connect to the Docker daemon"); }, {}},
      {"daemon that never answers", [](FakeTools& t) { t.script("docker", "exec sleep 30"); }, {}},
      {"output that is not JSON", [](FakeTools& t) { t.tool("docker", "TYPE  TOTAL\nImages 3\n"); }, {}},
      {"dangling listing unreadable: every reclaimable image counts as unused",
       [](FakeTools& t) { fakeDocker(t, "docker", R"j({"Type":"Images","Reclaimable":"2GiB"})j", "not json"); },
       {{"docker:unused-images", 2147483648}}},
      // Figures that cannot be true are unknown (-1): negative, or past the volume holding the data.
      {"more than any volume, and negative",
       [](FakeTools& t) {
         fakeDocker(t, "docker",
                    R"j({"Type":"Images","Reclaimable":"9.22EB"})j"
                    "\n"
                    R"j({"Type":"Containers","Reclaimable":"-5GB"})j",
                    R"j({"Size":"1MB"})j");
       },
       {{"docker:dangling-images", 1000000}, {"docker:stopped-containers", -1}, {"docker:unused-images", -1}}},
      {"more than the volume holding the engine's data",
       [](FakeTools& t) {
         fs::create_directories(t.bin().parent_path() / "system/var/lib/docker");
         fakeDocker(t, "docker", R"j({"Type":"Local Volumes","Reclaimable":"900PB"})j", "");
       },
       {{"docker:unused-volumes", -1}}},
      {"podman beside docker",
       [](FakeTools& t) {
         fakeDocker(t, "podman",
                    R"j({"Type":"Images","Reclaimable":"10MB"})j"
                    "\n"
                    R"j({"Type":"Local Volumes","Reclaimable":"3MB (100%)"})j",
                    R"j({"Size":"4MB"})j");
       },
       {{"podman:dangling-images", 4000000}, {"podman:unused-images", 6000000}, {"podman:unused-volumes", 3000000}}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    ScratchHome h;
    FakeTools tools(h.root());
    c.setup(tools);
    const auto started = std::chrono::steady_clock::now();
    std::map<std::string, int64_t> sizes;
    for (const auto& item : scanDocker(h, fakeServices(tools))) {
      sizes[item.id] = item.size;
      EXPECT_EQ(item.category, CleanCategory::docker);
      EXPECT_EQ(item.target.kind, ItemTarget::Kind::command);
    }
    EXPECT_EQ(sizes, c.sizes);
    EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(6));
  }
}

TEST(DockerScanner, PodmanOnlyOnLinux) {
  ScratchHome h;
  FakeTools tools(h.root());
  fakeDocker(tools, "podman", R"j({"Type":"Containers","Reclaimable":"1MB"})j", "");
  EXPECT_EQ(scanDocker(h, fakeServices(tools), Layout::linux).size(), 1u);
  EXPECT_TRUE(scanDocker(h, fakeServices(tools), Layout::macos).empty());
}

TEST(DockerScanner, TheCleanerRunsExactlyThePruneCommands) {
  ScratchHome h;
  FakeTools tools(h.root());
  fakeDocker(tools, "docker",
             std::string(kSystemDf).replace(std::string(kSystemDf).find("\"0B\",\"Size\""), 4, "\"5MB\""), kDangling);
  const Services services = fakeServices(tools);
  auto items = scanDocker(h, services);
  ASSERT_EQ(items.size(), 5u);
  std::map<std::string, Risk> risks;
  for (const auto& i : items) risks[i.id] = i.risk;
  EXPECT_EQ(risks, (std::map<std::string, Risk>{{"docker:build-cache", Risk::safe},
                                                 {"docker:dangling-images", Risk::safe},
                                                 {"docker:stopped-containers", Risk::review},
                                                 {"docker:unused-images", Risk::review},
                                                 {"docker:unused-volumes", Risk::caution}}));
  std::sort(items.begin(), items.end(), [](const ScanItem& a, const ScanItem& b) { return a.id < b.id; });
  const CleanReport report = Cleaner(h.paths(), AppConfig{}, services).clean(items, TriggerSource::manual(), false, std::nullopt);
  EXPECT_TRUE(report.failures.empty());
  const std::string calls = test::readText(tools.bin() / "docker.calls");
  EXPECT_EQ(calls,
            "system df --format {{json .}}\n"
            "image ls --filter dangling=true --format {{json .}}\n"
            "builder prune -f\n"
            "image prune -f\n"
            "container prune -f\n"
            "image prune -a -f\n"
            "volume prune -f\n");
}

TEST(DockerScanner, ToolSizes) {
  const struct Case {
    const char* text;
    std::optional<int64_t> bytes;
  } cases[] = {
      {"0B", 0},           {"1.2GB (50%)", 1200000000}, {"731.4kB", 731400}, {"512 MB", 512000000},
      {"2GiB", 2147483648}, {"3.5MiB", 3670016},          {"17", 17},          {"1.5TB", 1500000000000},
      {"N/A", {}},          {"", {}},                     {"12 parsecs", {}},  {"1..2GB", {}},
      {"-4MB", {}},         {"99999999999PB", INT64_MAX},
  };
  for (const auto& c : cases) EXPECT_EQ(parseToolSize(c.text), c.bytes) << c.text;
}

}  // namespace
}  // namespace kestrel
