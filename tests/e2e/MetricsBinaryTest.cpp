// End to end: "kestrel metrics" read by a real node exporter's textfile collector, with the values
// the test home implies.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <map>
#include <sstream>

#include "core/system/process/Shell.h"
#include "tests/e2e/RunAgent.h"
#include "tests/support/Wait.h"

namespace kestrel::test {
namespace {

// A local port nothing listens on now.
int freePort() {
  const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof a;
  ::bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a);
  ::getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len);
  ::close(fd);
  return ntohs(a.sin_port);
}

// "name{labels} value" lines of the kestrel_ metrics, by name and labels.
std::map<std::string, std::string> kestrelValues(const std::string& text) {
  std::map<std::string, std::string> out;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);)
    if (line.rfind("kestrel_", 0) == 0) out[line.substr(0, line.rfind(' '))] = line.substr(line.rfind(' ') + 1);
  return out;
}

TEST(MetricsBinary, TheNodeExporterReadsEveryMetricWithItsValue) {
  if (!Shell::which("prometheus-node-exporter")) GTEST_SKIP() << "prometheus-node-exporter is not installed";
  ScratchHome h;
  const std::vector<std::string> linux = {"KESTREL_LAYOUT=linux"};
  h.oldFolder(".cache/app", 300000, 10);
  h.aged(".local/state/app/old.log", 40000, 10);
  h.text(".config/orvo-kestrel/config.json", R"({"disposalOverrides": {"logs": "quarantine"}})");
  ASSERT_EQ(runHostBinary(h, {"clean", "logs", "--yes"}, linux).status, 0);
  ASSERT_EQ(runHostBinary(h, {"scan", "userCaches", "logs"}, linux).status, 0);
  const auto printed = runHostBinary(h, {"metrics"}, linux);
  ASSERT_EQ(printed.status, 0) << printed.err;
  const auto ours = kestrelValues(printed.out);
  EXPECT_EQ(ours.at("kestrel_reclaimable_items{category=\"userCaches\"}"), "1");
  EXPECT_EQ(ours.at("kestrel_reclaimable_items{category=\"logs\"}"), "0");  // moved aside by the clean
  EXPECT_EQ(ours.at("kestrel_quarantine_sessions"), "1");
  EXPECT_GE(std::stoll(ours.at("kestrel_quarantine_bytes")), 40000);
  EXPECT_GT(std::stoll(ours.at("kestrel_volume_size_bytes")), 0);
  EXPECT_EQ(ours.count("kestrel_forecast_days_to_full"), 0u) << "no history, no forecast";

  const fs::path dir = h.outside("textfiles");
  ASSERT_EQ(runHostBinary(h, {"metrics", "--textfile", dir.string()}, linux).status, 0);
  const int port = freePort();
  const std::string address = "127.0.0.1:" + std::to_string(port);
  const pid_t exporter = ::fork();
  if (exporter == 0) {
    ::execlp("prometheus-node-exporter", "prometheus-node-exporter", ("--web.listen-address=" + address).c_str(),
             "--collector.disable-defaults", "--collector.textfile",
             ("--collector.textfile.directory=" + dir.string()).c_str(), static_cast<char*>(nullptr));
    ::_exit(127);
  }
  std::string scraped;
  const bool up = waitFor([&] {
    const auto r = Shell::run("python3", {"-c", "import sys,urllib.request; "
                                                "sys.stdout.write(urllib.request.urlopen(sys.argv[1]).read().decode())",
                                          "http://" + address + "/metrics"}, 10);
    scraped = r.stdout;
    return r.ok();
  }, 20);
  ::kill(exporter, SIGTERM);
  ::waitpid(exporter, nullptr, 0);
  ASSERT_TRUE(up) << "the exporter did not answer";
  EXPECT_NE(scraped.find("\nnode_textfile_scrape_error 0\n"), std::string::npos) << scraped;
  const auto theirs = kestrelValues(scraped);
  for (const auto& [name, value] : ours) {
    if (name.rfind("kestrel_volume_free_bytes", 0) == 0) continue;  // the disk moves between the two reads
    ASSERT_TRUE(theirs.count(name)) << name;
    EXPECT_EQ(std::stod(theirs.at(name)), std::stod(value)) << name;
  }
  // A scheduled tick writes the file itself where the settings say.
  const fs::path tickDir = h.outside("tick");
  h.text(".config/orvo-kestrel/config.json", R"({"metricsTextfileDir": ")" + tickDir.string() + R"("})");
  ASSERT_EQ(runAgentLinux(h, {"run-scheduled"}).status, 0);
  EXPECT_NE(readText(tickDir / "kestrel.prom").find("\nkestrel_quarantine_sessions 1\n"), std::string::npos);
  if (Shell::which("promtool")) {
    const auto check = Shell::run("/bin/sh", {"-c", "promtool check metrics < \"$1\"", "sh", (dir / "kestrel.prom").string()}, 30);
    EXPECT_TRUE(check.ok()) << check.stdout << check.stderr;
  }
}

}  // namespace
}  // namespace kestrel::test
