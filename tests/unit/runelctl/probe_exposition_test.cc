// SPDX-License-Identifier: Apache-2.0
// The metrics of a probe, and their file.
#include "probe/exposition.h"

#include <cerrno>
#include <filesystem>
#include <iterator>
#include <string>
#include <vector>

#include <sys/stat.h>

#include <gtest/gtest.h>

#include "support/spied_calls.h"
#include "support/temp_dir.h"

namespace runelctl {
namespace {

using zell::test::contentOf;
using zell::test::SpiedCalls;
using zell::test::TempDir;

Facts oneDevice() {
  Facts facts;
  facts.device = "gw-3";
  facts.roundTrip = 0.00123;
  facts.uptime = 350735.47;
  facts.restartAge = 7300;
  facts.free = {{"/", 1048576}, {"/none", std::nullopt, "x"}, {"/data", 18446744073709551615U}};
  facts.version = "1.0.0";
  facts.time = 1767225600.125;
  return facts;
}

TEST(ProbeExpositionTest, AllMetricsOfADevice) {
  EXPECT_EQ(metricsText({oneDevice()}),
            R"(# HELP runel_up Whether the daemon of the device answered the probe: 1 or 0.
# TYPE runel_up gauge
runel_up{device="gw-3"} 1
# HELP runel_round_trip_seconds Time between a request and its answer on an open connection.
# TYPE runel_round_trip_seconds gauge
runel_round_trip_seconds{device="gw-3"} 0.001230
# HELP runel_uptime_seconds Time since the device was booted.
# TYPE runel_uptime_seconds gauge
runel_uptime_seconds{device="gw-3"} 350735.47
# HELP runel_restart_age_seconds Time since the daemon was started.
# TYPE runel_restart_age_seconds gauge
runel_restart_age_seconds{device="gw-3"} 7300.00
# HELP runel_free_bytes Free space of the file system of a path, for unprivileged users.
# TYPE runel_free_bytes gauge
runel_free_bytes{device="gw-3",path="/"} 1048576
runel_free_bytes{device="gw-3",path="/data"} 18446744073709551615
# HELP runel_version_info The version that is installed on the device. The value is 1.
# TYPE runel_version_info gauge
runel_version_info{device="gw-3",version="1.0.0"} 1
# HELP runel_probe_timestamp_seconds When the device was probed, in seconds since 1970.
# TYPE runel_probe_timestamp_seconds gauge
runel_probe_timestamp_seconds{device="gw-3"} 1767225600.125
)");
}

TEST(ProbeExpositionTest, ADeviceThatIsDownHasOnlyItsStateAndTheTime) {
  Facts down;
  down.device = "gw-4";
  down.failure = Error(Fault::unreachable, "x");
  down.time = 5;
  const std::string text = metricsText({down});
  EXPECT_NE(text.find("\nrunel_up{device=\"gw-4\"} 0\n"), std::string::npos) << text;
  EXPECT_NE(text.find("\nrunel_probe_timestamp_seconds{device=\"gw-4\"} 5.000\n"),
            std::string::npos);
  for (const char* metric : {"round_trip", "uptime", "restart_age", "free_bytes", "version_info"}) {
    EXPECT_EQ(text.find(metric), std::string::npos) << metric;
  }
}

TEST(ProbeExpositionTest, TheLinesOfAMetricAreTogether) {
  Facts other = oneDevice();
  other.device = "gw-4";
  const std::string text = metricsText({oneDevice(), other});
  EXPECT_NE(text.find("runel_up{device=\"gw-3\"} 1\nrunel_up{device=\"gw-4\"} 1\n# HELP"),
            std::string::npos)
      << text;
  EXPECT_EQ(text.find("# HELP runel_up "), text.rfind("# HELP runel_up "));
}

TEST(ProbeExpositionTest, LabelsAreEscaped) {
  EXPECT_EQ(labelText("a\"b\\c\nd"), R"(a\"b\\c\nd)");
  EXPECT_EQ(labelText("\xc3\xa4{}=,\t'"), "\xc3\xa4{}=,\t'");
  EXPECT_EQ(labelText("a\xff\xc3"), "a\xef\xbf\xbd\xef\xbf\xbd");
  EXPECT_EQ(labelText(""), "");
  Facts facts = oneDevice();
  facts.device = "a\"b";
  facts.free = {{"/\n", 1}};
  const std::string text = metricsText({facts});
  EXPECT_NE(text.find(R"(runel_free_bytes{device="a\"b",path="/\n"} 1)"), std::string::npos);
}

class MetricsFileTest : public ::testing::Test {
 protected:
  [[nodiscard]] std::string path(const std::string& name) const { return temp_.file(name); }
  // The number of entries of the directory.
  [[nodiscard]] auto entries() const {
    return std::distance(std::filesystem::directory_iterator(temp_.path()), {});
  }

  const TempDir temp_;
};

TEST_F(MetricsFileTest, IsReplacedAndReadableForEveryone) {
  const mode_t before = umask(0077);
  EXPECT_EQ(replaceMetricsFile(path("a.prom"), "one\n"), 0);
  const std::filesystem::path other = path("b");
  std::filesystem::create_hard_link(path("a.prom"), other);
  EXPECT_EQ(replaceMetricsFile(path("a.prom"), "two\n"), 0);
  (void)umask(before);
  EXPECT_EQ(contentOf(path("a.prom")), "two\n");
  EXPECT_EQ(contentOf(other), "one\n");  // replaced, not overwritten
  struct stat about {};
  ASSERT_EQ(stat(path("a.prom").c_str(), &about), 0);
  EXPECT_EQ(about.st_mode, S_IFREG | 0644U);
  EXPECT_EQ(entries(), 2);
}

TEST_F(MetricsFileTest, AFailureLeavesNothing) {
  EXPECT_EQ(replaceMetricsFile(path("none/a.prom"), "x"), ENOENT);
  std::filesystem::create_directory(path("a.prom"));
  EXPECT_EQ(replaceMetricsFile(path("a.prom"), "x"), EISDIR);
  EXPECT_EQ(replaceMetricsFile(path("a.prom") + "/" + std::string(300, 'x'), "x"), ENAMETOOLONG);
  EXPECT_EQ(entries(), 1);
  EXPECT_TRUE(std::filesystem::is_empty(path("a.prom")));
}

// The first four leave the old file, without another one beside it.
TEST_F(MetricsFileTest, EachFailedCallIsReported) {
  ASSERT_EQ(replaceMetricsFile(path("a.prom"), "old"), 0);
  for (const char* call : {"fchmod", "write", "fsync file", "renameat"}) {
    SpiedCalls calls;
    calls.fail(call, ENOSPC);
    EXPECT_EQ(replaceMetricsFile(path("a.prom"), "new"), ENOSPC) << call;
    EXPECT_EQ(contentOf(path("a.prom")), "old") << call;
    EXPECT_EQ(entries(), 1) << call;
  }
  SpiedCalls calls;
  calls.fail("fsync directory", EIO);
  EXPECT_EQ(replaceMetricsFile(path("a.prom"), "new"), EIO);
  EXPECT_EQ(contentOf(path("a.prom")), "new");
  EXPECT_EQ(entries(), 1);
}

}  // namespace
}  // namespace runelctl
