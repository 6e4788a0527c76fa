// SPDX-License-Identifier: Apache-2.0
// The order in which the server opens ports, devices and hosts before its first select().
#include <map>

#include <fcntl.h>
#include <syslog.h>
#include <unistd.h>

#include "unit/server/loop_fixture.h"

namespace zell::test {
namespace {

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::IsEmpty;

TEST_F(HostLoop, StartsInOrder) {
  const TempDir directory;
  const Fifo device(directory, "device");
  server_.add_port(kOtherPort, false, true);
  server_.add_port(kPort, false, true);
  server_.add_device(device.path());
  server_.add_device("/no/such/device");
  std::vector<std::string> expected;
  std::vector<std::string> seen;
  server_.onStarted = [&] {
    const std::string first = std::to_string(listener(kPort));
    const std::string second = std::to_string(listener(kOtherPort));
    const std::string host = std::to_string(server_.hostSocket(0));
    expected = {"DEBUG (PID) bind succeeded, port = 6001, socket = " + first,
                "INFO (PID) listening on port 6001",
                "DEBUG (PID) bind succeeded, port = 6002, socket = " + second,
                "INFO (PID) listening on port 6002",
                "WARNING (PID) /no/such/device not enabled: No such file or directory",
                "INFO (PID) established connection to 127.0.0.1, port 6012, socket " + host};
    seen = lines();
    EXPECT_THAT(server_.calls, ElementsAre("startup", "outgoing " + host, "started"));
  };
  EXPECT_EQ(server_.runPasses(1), 0);
  EXPECT_THAT(seen, ElementsAreArray(expected));
  EXPECT_EQ(server_.calls.size(), 7U) << "select, timeout, loop and shutdown follow";
}

TEST_F(ServerLoop, SetsTheRunFlagBetweenStartupAndTheRest) {
  bool duringStartup = true;
  bool duringStarted = false;
  bool duringFailure = false;
  const UniqueFd other = listenOn(kPort);
  server_.add_port(kPort, false, true);
  server_.onStartup = [&] { duringStartup = ServerBase::s_run; };
  server_.onListenFailure = [&](int) { return duringFailure = ServerBase::s_run, false; };
  server_.onStarted = [&] { duringStarted = ServerBase::s_run; };
  server_.runPasses(1);
  EXPECT_FALSE(duringStartup);
  EXPECT_TRUE(duringFailure);
  EXPECT_TRUE(duringStarted);
}

TEST_F(ServerLoop, AcceptsPortsAndDevicesInStartupButNotLater) {
  server_.onStartup = [&] { server_.add_port(kPort, false, true); };
  server_.onStarted = [&] { server_.add_port(kOtherPort, false, true); };
  server_.onLoop = [&] { server_.add_device("/dev/null"); };
  server_.runPasses(1);
  EXPECT_EQ(server_.m_ports.count(kPort), 1U);
  EXPECT_EQ(server_.m_ports.count(kOtherPort), 0U);
  EXPECT_THAT(server_.m_devices, IsEmpty());
  EXPECT_EQ(log.count("(PID) listening on port 6001"), 1);
  EXPECT_EQ(log.count("(PID) cannot add a new port once we have started '6002'"), 1);
  EXPECT_EQ(log.count("(PID) cannot add a new device once we have started '/dev/null'"), 1);
}

TEST_F(ServerLoop, OpensTheLogOnStandardErrorInTheForeground) {
  server_.set_log_facility(LOG_LOCAL5);
  server_.runPasses(1);
  EXPECT_THAT(log.controls(), ElementsAre("openlog recorder 32 168"));
}

TEST_F(ServerLoop, OpensTheLogWithTheConsoleAsADaemon) {
  server_.onStarted = [] { ServerBase::s_run = false; };
  EXPECT_EQ(server_.run(true), 0);
  EXPECT_THAT(log.controls(), ElementsAre("openlog recorder 2 48"));
  EXPECT_TRUE(server_.is_daemon());
}

TEST_F(ServerLoop, IsNotADaemonInTheForeground) {
  server_.runPasses(1);
  EXPECT_FALSE(server_.is_daemon());
  EXPECT_THAT(sys.calls, IsEmpty()) << "it forked or asked for another process";
  EXPECT_EQ(server_.m_child_pid, 0);
}

TEST_F(ServerLoop, ListensOnEachPortOnce) {
  server_.add_port(kPort, true, true);
  server_.add_port(kPort, false, true);
  std::map<int, int> listeners;
  server_.onStarted = [&] { listeners = server_.m_listeners; };
  server_.runPasses(1);
  ASSERT_EQ(listeners.size(), 1U);
  EXPECT_EQ(listeners.begin()->second, kPort);
  EXPECT_EQ(log.countContaining("bind succeeded"), 1);
}

TEST_F(ServerLoop, RetriesAPortWhileTheSubclassRequestsIt) {
  UniqueFd other = listenOn(kPort);
  server_.add_port(kPort, false, true);
  int failures = 0;
  server_.onListenFailure = [&](int) {
    if (++failures == 3) {
      other.reset();
    }
    return true;
  };
  int opened = -1;
  server_.onStarted = [&] { opened = listener(kPort); };
  server_.runPasses(1);
  EXPECT_EQ(server_.count("listen failure 6001"), 3);
  EXPECT_GT(opened, 0);
  EXPECT_EQ(log.countContaining("cannot bind socket"), 3);
}

// A socket gets the number 0 if standard input is closed. In the tables, 0 means no socket.
TEST_F(ServerLoop, CountsASocketWithTheNumberZeroAsNotOpened) {
  const UniqueFd kept(fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 3));
  UniqueFd other = listenOn(kPort);
  server_.add_port(kPort, false, true);
  server_.onListenFailure = [&](int) {
    other.reset();
    if (server_.count("listen failure 6001") == 1) {
      EXPECT_EQ(close(STDIN_FILENO), 0);
    } else {
      EXPECT_EQ(dup2(kept.get(), STDIN_FILENO), STDIN_FILENO);
    }
    return true;
  };
  int opened = -1;
  server_.onStarted = [&] { opened = listener(kPort); };
  server_.runPasses(1);
  EXPECT_EQ(dup2(kept.get(), STDIN_FILENO), STDIN_FILENO);
  EXPECT_EQ(server_.count("listen failure 6001"), 2);
  EXPECT_GT(opened, 0);
}

TEST_F(ServerLoop, DoesNotWatchASocketWithTheNumberZero) {
  const UniqueFd kept(fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 3));
  UniqueFd other = listenOn(kPort);
  server_.add_port(kPort, false, true);
  server_.onListenFailure = [&](int) {
    other.reset();
    return server_.count("listen failure 6001") == 1 && close(STDIN_FILENO) == 0;
  };
  server_.onStarted = [&] {
    EXPECT_THAT(server_.m_listeners, IsEmpty());
    EXPECT_EQ(dup2(kept.get(), STDIN_FILENO), STDIN_FILENO);
  };
  server_.runPasses(1);
  EXPECT_EQ(server_.count("listen failure 6001"), 2);
}

TEST_F(ServerLoop, ContinuesWithTheNextPortWhenOneIsGivenUp) {
  const UniqueFd other = listenOn(kPort);
  server_.add_port(kPort, false, true);
  server_.add_port(kOtherPort, false, true);
  std::map<int, int> listeners;
  server_.onStarted = [&] { listeners = server_.m_listeners; };
  server_.runPasses(1);
  EXPECT_EQ(server_.count("listen failure 6001"), 1);
  ASSERT_EQ(listeners.size(), 1U);
  EXPECT_EQ(listeners.begin()->second, kOtherPort);
}

}  // namespace
}  // namespace zell::test
