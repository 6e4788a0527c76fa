// SPDX-License-Identifier: Apache-2.0
#include "main/options.h"

#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <syslog.h>

namespace zell {
namespace {

constexpr char kUsage[] =
    "Usage: runeld [OPTION]\n"
    "Execute commands from the update manager daemon\n"
    "\n"
    " -i, --ip-address addr   IP address of the master\n"
    " -v, --verbose           Additional -v generates more output\n"
    " -l, --log-to-stdout     Send logging to stdout\n"
    " -n, --nodaemon,         Run the the foreground\n"
    " --no-daemon             Run the the foreground\n";

class OptionsTest : public ::testing::Test {
 protected:
  Options scan(const std::vector<std::string>& args) { return scanOptions(args, out); }
  // Expectations for every command line that starts the daemon.
  void expectStart(const Options& options) {
    EXPECT_FALSE(options.exitStatus.has_value());
    EXPECT_EQ(out.str(), "");
  }
  void expectEnd(const Options& options, int status) {
    EXPECT_EQ(options.exitStatus, status);
    EXPECT_EQ(out.str(), kUsage);
  }

  std::ostringstream out;
};

TEST_F(OptionsTest, DefaultIsAQuietDaemonOfTheDeviceItself) {
  const Options options = scan({});
  EXPECT_EQ(options.address, "127.0.0.1");
  EXPECT_TRUE(options.daemon);
  EXPECT_EQ(options.verbose, 0);
  EXPECT_EQ(options.logOptions, 0);
  expectStart(options);
}

TEST_F(OptionsTest, HelpPrintsTheUsageAndEndsWithZero) {
  expectEnd(scan({"-h"}), 0);
}

TEST_F(OptionsTest, LongHelpPrintsTheUsageAndEndsWithZero) {
  expectEnd(scan({"--help"}), 0);
}

TEST_F(OptionsTest, HelpEndsTheScan) {
  expectEnd(scan({"-v", "-h", "-i"}), 0);
}

TEST_F(OptionsTest, MissingAddressPrintsTheUsageAndEndsWithOne) {
  expectEnd(scan({"-n", "-i"}), 1);
}

TEST_F(OptionsTest, MissingLongAddressPrintsTheUsageAndEndsWithOne) {
  expectEnd(scan({"--ip-address"}), 1);
}

TEST_F(OptionsTest, AddressIsUsedUnchanged) {
  for (const char* option : {"-i", "--ip-address"}) {
    for (const char* address : {"10.0.0.1", "master.example", "", "-h", "-i"}) {
      const Options options = scan({option, address});
      EXPECT_EQ(options.address, address);
      expectStart(options);
    }
  }
}

TEST_F(OptionsTest, LastAddressWins) {
  const Options options = scan({"-i", "10.0.0.1", "--ip-address", "10.0.0.2"});
  EXPECT_EQ(options.address, "10.0.0.2");
  expectStart(options);
}

TEST_F(OptionsTest, EachVerboseAddsOne) {
  EXPECT_EQ(scan({"-v"}).verbose, 1);
  EXPECT_EQ(scan({"-v", "--verbose", "-v"}).verbose, 3);
  EXPECT_EQ(scan(std::vector<std::string>(100, "-v")).verbose, 100);
}

TEST_F(OptionsTest, ForegroundHasThreeNames) {
  for (const char* option : {"-n", "--nodaemon", "--no-daemon"}) {
    const Options options = scan({option});
    EXPECT_FALSE(options.daemon) << option;
    expectStart(options);
  }
}

TEST_F(OptionsTest, LogToStdoutHasTwoNames) {
  EXPECT_EQ(scan({"-l"}).logOptions, LOG_PERROR);
  EXPECT_EQ(scan({"--log-to-stdout"}).logOptions, 32);
}

TEST_F(OptionsTest, UnknownArgumentsChangeNothing) {
  const Options options = scan({"-vv", "-x", "", "-nv", "--verb", "--ip-address=10.0.0.1",
                                "-i10.0.0.1", "help", "-H", "- v", "--no-daemon=1", "-n "});
  EXPECT_EQ(options.address, "127.0.0.1");
  EXPECT_TRUE(options.daemon);
  EXPECT_EQ(options.verbose, 0);
  EXPECT_EQ(options.logOptions, 0);
  expectStart(options);
}

TEST_F(OptionsTest, ArgumentsBetweenUnknownOnesCount) {
  const Options options = scan({"-x", "-v", "stray", "-i", "10.0.0.1", "--", "-n"});
  EXPECT_EQ(options.verbose, 1);
  EXPECT_EQ(options.address, "10.0.0.1");
  EXPECT_FALSE(options.daemon);
  expectStart(options);
}

TEST_F(OptionsTest, UsageIsFlushedLineByLine) {
  // Counts the flushes of the stream that the usage goes to.
  struct Counter : std::stringbuf {
    int sync() override { return ++flushes, 0; }
    int flushes = 0;
  } buffer;
  std::ostream stream(&buffer);
  (void)scanOptions({"-h"}, stream);
  EXPECT_EQ(buffer.flushes, 8);
  EXPECT_EQ(buffer.str(), kUsage);
}

}  // namespace
}  // namespace zell
