// SPDX-License-Identifier: Apache-2.0
// How the loop ends, and what it closes.
#include <cerrno>
#include <chrono>
#include <stdexcept>
#include <thread>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "unit/server/loop_fixture.h"

namespace zell::test {
namespace {

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::IsEmpty;

/// Sends @p signal to the thread @p tid of this process when it sleeps in the kernel.
void signalWhenAsleep(pid_t tid, int signal) {
  const std::string path = "/proc/self/task/" + std::to_string(tid) + "/stat";
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (std::chrono::steady_clock::now() < deadline) {
    const std::string stat = contentOf(path);
    if (stat.compare(stat.rfind(')') + 2, 1, "S") == 0) {
      break;
    }
    std::this_thread::yield();
  }
  syscall(SYS_tgkill, getpid(), tid, signal);
}

TEST_F(ServerLoop, SleepsUntilASignalEndsIt) {
  server_.set_use_timeout(false);
  std::thread sender;
  server_.onStarted = [&] { sender = std::thread(signalWhenAsleep, gettid(), SIGTERM); };
  EXPECT_EQ(server_.run(false), 0);
  sender.join();
  EXPECT_THAT(server_.calls, ElementsAre("startup", "started", "select -1", "loop", "shutdown"));
  EXPECT_THAT(lines(), ElementsAre("WARNING (PID) select failed, but was due to a signal",
                                   "INFO (PID) exiting on signal: 15"));
}

class EndingSignal : public ServerLoop, public ::testing::WithParamInterface<int> {};

TEST_P(EndingSignal, EndsTheLoopAfterThePass) {
  server_.onLoop = [] { raise(GetParam()); };
  EXPECT_EQ(server_.runUntil([] { return false; }), 0);
  EXPECT_EQ(server_.count("loop"), 1);
  EXPECT_EQ(lines(), std::vector<std::string>{"INFO (PID) exiting on signal: " +
                                              std::to_string(GetParam())});
}

// The server blocks the signals until it has installed the handlers and set the loop's flag.
// Otherwise the flag would be set after the signal, and the loop would continue.
TEST_P(EndingSignal, IsNotLostWhileTheServerStarts) {
  server_.onStartup = [] { raise(GetParam()); };
  int seenInStartup = 0;
  server_.onStarted = [&] { seenInStartup = ServerBase::s_signal; };
  EXPECT_EQ(server_.runUntil([] { return false; }), 0);
  EXPECT_EQ(seenInStartup, GetParam());
  EXPECT_THAT(server_.calls, ElementsAre("startup", "started", "shutdown"));
  EXPECT_EQ(log.count("(PID) exiting on signal: " + std::to_string(GetParam())), 1);
}

INSTANTIATE_TEST_SUITE_P(Each, EndingSignal, ::testing::Values(SIGTERM, SIGQUIT, SIGABRT, SIGINT));

TEST_F(ServerLoop, RestoresTheSignalMask) {
  sigset_t before;
  sigset_t during;
  sigprocmask(SIG_BLOCK, nullptr, &before);
  server_.onStarted = [&] { sigprocmask(SIG_BLOCK, nullptr, &during); };
  server_.runPasses(1);
  for (const int number : {SIGTERM, SIGQUIT, SIGABRT, SIGINT}) {
    EXPECT_EQ(sigismember(&during, number), sigismember(&before, number));
  }
}

TEST_F(ServerLoop, BlocksTheEndingSignalsAndNoOthers) {
  sigset_t before;
  sigset_t during;
  sigprocmask(SIG_BLOCK, nullptr, &before);
  server_.onStartup = [&] { sigprocmask(SIG_BLOCK, nullptr, &during); };
  server_.runPasses(1);
  for (int number = 1; number < SIGRTMIN; ++number) {
    const bool ending =
        number == SIGTERM || number == SIGQUIT || number == SIGABRT || number == SIGINT;
    EXPECT_EQ(sigismember(&during, number), ending ? 1 : sigismember(&before, number)) << number;
  }
}

TEST_F(ServerLoop, LogsTheLastOfTwoSignals) {
  server_.onLoop = [] {
    raise(SIGTERM);
    raise(SIGINT);
  };
  server_.runUntil([] { return false; });
  EXPECT_THAT(lines(), ElementsAre("INFO (PID) exiting on signal: 2"));
}

TEST_F(ServerLoop, OutlivesAWriteToAClosedPeer) {
  server_.add_port(kPort, false, true);
  UniqueFd client;
  server_.onStarted = [&] { client = connectTo(kPort); };
  int writes = 0;
  int error = 0;
  server_.onIncoming = [&](int fd) {
    client.reset();
    while (error == 0 && ++writes < 100000) {
      error = send(fd, "x", 1, 0) == 1 ? 0 : errno;
    }
  };
  server_.runUntil([&] { return error != 0; });
  EXPECT_TRUE(error == EPIPE || error == ECONNRESET) << error;
}

TEST_F(ServerLoop, ContinuesAfterASelectError) {
  server_.add_port(kPort, false, true);
  int closed = -1;
  server_.onStarted = [&] {
    closed = listener(kPort);
    (void)close(closed);
    (void)lines();
  };
  int failures = 0;
  server_.onSelect = [&](int result) {
    errno = EINTR;  // the operation's errno is not that of select
    if (result == -1 && ++failures == 2) {
      EXPECT_EQ(dup2(2, closed), closed);  // so that the end has something to close
    }
    return false;
  };
  server_.runUntil([&] { return failures == 2; });
  const std::vector<std::string> all = lines();
  ASSERT_GE(all.size(), 2U);
  EXPECT_EQ(all[0], "ERR (PID) select: Bad file descriptor");
  EXPECT_EQ(all[1], "ERR (PID) select: Bad file descriptor");
  EXPECT_EQ(server_.count("timeout"), 0);
  EXPECT_EQ(server_.count("loop"), 2);
}

TEST_F(HostLoop, ClosesEverythingInOrder) {
  const TempDir directory;
  const Fifo device(directory, "device");
  server_.add_device(device.path());
  server_.add_port(kPort, false, true);
  server_.add_port(kOtherPort, false, true);
  UniqueFd client;
  std::vector<std::string> expected;
  server_.onStarted = [&] { client = connectTo(kOtherPort); };
  server_.onLoop = [&] {
    if (server_.m_connections.empty()) {
      return;
    }
    const auto socket = [](int fd) { return "socket " + std::to_string(fd); };
    expected = {"INFO (PID) closing data " + socket(server_.inbound()[0]),
                "INFO (PID) closing listening " + socket(listener(kPort)),
                "INFO (PID) closing listening " + socket(listener(kOtherPort)),
                "INFO (PID) closing device " + device.path() + ", fd " +
                    std::to_string(server_.m_device_fds.at(device.path())),
                "INFO (PID) closing host 127.0.0.1, " + socket(server_.hostSocket(0))};
  };
  server_.onShutdown = [&] {
    EXPECT_EQ(server_.m_listeners.size(), 2U) << "called before everything is closed";
    (void)lines();
  };
  std::vector<std::string> controls;
  server_.runUntil([&] { return !server_.m_connections.empty(); });
  controls = log.controls();
  EXPECT_THAT(lines(), ElementsAreArray(expected));
  EXPECT_THAT(controls, ElementsAre("closelog", "closelog")) << "once for each listening socket";
  EXPECT_THAT(server_.m_connections, IsEmpty());
  EXPECT_THAT(server_.m_listeners, IsEmpty());
  EXPECT_THAT(server_.m_hosts, IsEmpty());
  EXPECT_EQ(server_.m_devices.size(), 1U);
  EXPECT_EQ(server_.m_ports.size(), 2U);
}

TEST_F(HostLoop, LogsEachClosingBeforeTheDescriptorIsClosed) {
  const TempDir directory;
  const Fifo device(directory, "device");
  server_.add_device(device.path());
  server_.add_port(kPort, false, true);
  UniqueFd client;
  server_.onStarted = [&] { client = connectTo(kPort); };
  std::vector<bool> open;
  server_.onShutdown = [&] {
    log.onEntry = [&](const LogEntry& line) { open.push_back(isOpen(lastNumber(line.text))); };
  };
  server_.runUntil([&] { return !server_.m_connections.empty(); });
  log.onEntry = nullptr;
  EXPECT_THAT(open, ElementsAre(true, true, true, true)) << "data, listening, device, host";
}

TEST_F(HostLoop, ClosesUdpPortsWithoutAListenerBeforeDevicesAndHosts) {
  const TempDir directory;
  const Fifo device(directory, "device");
  server_.add_device(device.path());
  server_.add_port(kPort, true, true);
  server_.add_port(kOtherPort, true, true);
  std::vector<std::string> expected;
  server_.onShutdown = [&] {
    EXPECT_THAT(server_.m_listeners, IsEmpty());
    ASSERT_EQ(server_.inbound().size(), 2U);
    const auto number = [](int fd) { return std::to_string(fd); };
    expected = {"INFO (PID) closing data socket " + number(server_.inbound()[0]),
                "INFO (PID) closing data socket " + number(server_.inbound()[1]),
                "INFO (PID) closing device " + device.path() + ", fd " +
                    number(server_.m_device_fds.at(device.path())),
                "INFO (PID) closing host 127.0.0.1, socket " + number(server_.hostSocket(0))};
    (void)lines();
  };
  server_.runPasses(1);
  EXPECT_THAT(log.controls(), ElementsAre("closelog"));
  EXPECT_THAT(lines(), ElementsAreArray(expected));
  EXPECT_THAT(server_.m_connections, IsEmpty());
  EXPECT_THAT(server_.m_hosts, IsEmpty());
}

TEST_F(ServerLoop, ClosesUdpPortsDuringAnException) {
  server_.add_port(kPort, true, true);
  std::vector<int> udp;
  server_.onLoop = [&] {
    udp = server_.inbound();
    throw std::runtime_error("from a handler");
  };
  EXPECT_THROW(server_.runPasses(3), std::runtime_error);
  ASSERT_EQ(udp.size(), 1U);
  EXPECT_FALSE(isOpen(udp[0]));
  EXPECT_THAT(server_.m_connections, IsEmpty());
}

TEST_F(HostLoop, ClosesEverythingDuringAnException) {
  server_.add_port(kPort, false, true);
  UniqueFd client;
  server_.onStarted = [&] { client = connectTo(kPort); };
  server_.onIncoming = [](int) { throw std::runtime_error("from a handler"); };
  EXPECT_THROW(server_.runPasses(3), std::runtime_error);
  EXPECT_EQ(server_.calls.back(), "shutdown");
  EXPECT_THAT(server_.m_connections, IsEmpty());
  EXPECT_THAT(server_.m_listeners, IsEmpty());
  EXPECT_THAT(server_.m_hosts, IsEmpty());
  EXPECT_TRUE(isClosedByPeer(client));
}

TEST_F(ServerLoop, ClosesEverythingWhenStartupThrows) {
  sigset_t before;
  sigset_t after;
  sigprocmask(SIG_BLOCK, nullptr, &before);
  server_.onStartup = [] { throw std::runtime_error("from startup"); };
  EXPECT_THROW(server_.runPasses(3), std::runtime_error);
  sigprocmask(SIG_BLOCK, nullptr, &after);
  EXPECT_EQ(sigismember(&after, SIGTERM), sigismember(&before, SIGTERM));
  EXPECT_THAT(server_.calls, ElementsAre("startup", "shutdown"));
  EXPECT_FALSE(ServerBase::s_run);
}

TEST_F(ServerLoop, EndsWithoutALogLineWithoutASignal) {
  server_.add_port(kPort, false, true);
  server_.runPasses(1);
  EXPECT_EQ(log.countContaining("exiting on signal"), 0);
}

// The close operations alone.

TEST_F(ServerLoop, ClosesConnectionsWithoutAListener) {
  const int fd = dup(STDERR_FILENO);
  server_.m_connections[fd] = Connection{kPort, false, true, 9, fd, ""};
  server_.m_connections[0] = Connection{kPort, false, true, 9, 0, ""};
  server_.close_connections(-1);
  EXPECT_THAT(server_.m_connections, IsEmpty());
  EXPECT_THAT(log.controls(), ElementsAre("closelog"));
  EXPECT_THAT(lines(), ElementsAre("INFO (PID) closing data socket " + std::to_string(fd)));
  EXPECT_NE(fcntl(0, F_GETFD), -1) << "0 is no connection's socket";
}

TEST_F(ServerLoop, ClosesNoDeviceThatIsNotOpen) {
  server_.add_device("/never/opened");
  server_.add_device("/failed");
  server_.m_device_fds["/failed"] = -1;
  server_.close_devices();
  EXPECT_EQ(server_.m_device_fds.at("/never/opened"), 0) << "an absent path is entered";
  EXPECT_EQ(server_.m_device_fds.at("/failed"), -1);
  EXPECT_THAT(lines(), IsEmpty());
  EXPECT_NE(fcntl(0, F_GETFD), -1);
}

TEST_F(ServerLoop, ClosesADeviceThatHasTheNumberOne) {
  const UniqueFd kept(fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3));
  server_.add_device("/one");
  server_.m_device_fds["/one"] = STDOUT_FILENO;
  server_.close_devices();
  const int flags = fcntl(STDOUT_FILENO, F_GETFD);
  EXPECT_EQ(dup2(kept.get(), STDOUT_FILENO), STDOUT_FILENO);
  EXPECT_EQ(flags, -1);
}

TEST_F(ServerLoop, ClosesOnlyHostsThatAreConnected) {
  server_.add_host("a", 1);
  server_.add_host("b", 2);
  const int fd = dup(STDERR_FILENO);
  server_.m_hosts.back().socket = fd;
  server_.close_hosts();
  EXPECT_THAT(server_.m_hosts, IsEmpty());
  EXPECT_THAT(lines(), ElementsAre("INFO (PID) closing host b, socket " + std::to_string(fd)));
}

}  // namespace
}  // namespace zell::test
