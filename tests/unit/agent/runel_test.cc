// SPDX-License-Identifier: Apache-2.0
// Construction, the start, the end, and the wait for a port that another process holds.
#include "agent/runel.h"

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include <netinet/in.h>
#include <sys/socket.h>
#include <syslog.h>
#include <unistd.h>

#include "support/temp_dir.h"
#include "unit/agent/agent_case.h"

namespace zell::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

using Strings = std::vector<std::string>;

constexpr char kPidFile[] = "/var/run/runeld.pid";

class RunelTest : public AgentCase {
 protected:
  ~RunelTest() override {
    for (const int number : {SIGTERM, SIGQUIT, SIGABRT, SIGINT, SIGALRM}) {
      (void)std::signal(number, SIG_DFL);
    }
    (void)unlink(kPidFile);
  }

  static void writePidFile(const std::string& content) {
    std::FILE* const file = std::fopen(kPidFile, "w");
    ASSERT_NE(file, nullptr);
    (void)std::fputs(content.c_str(), file);
    (void)std::fclose(file);
  }
  static void (*handlerOfSignal(int number))(int) {
    struct sigaction action {};
    (void)sigaction(number, nullptr, &action);
    return action.sa_handler;
  }
  // A server that ends after its first pass.
  static int runOnce(TestRunel& server) {
    server.onLoop = [](TestRunel&) { ServerBase::s_run = false; };
    return server.run();
  }
};

TEST_F(RunelTest, IsConstructedForItsPortAndItsMaster) {
  const TestRunel server("192.0.2.1", true, 2);
  EXPECT_EQ(server.m_name, "runeld");
  EXPECT_EQ(server.m_pid_file, kPidFile);
  ASSERT_EQ(server.m_ports.size(), 1U);
  const Port& port = server.m_ports.begin()->second;
  EXPECT_EQ(port.port, 5111);
  EXPECT_FALSE(port.udp);
  EXPECT_TRUE(port.read);
  ASSERT_EQ(server.m_hosts.size(), 1U);
  EXPECT_EQ(server.m_hosts.front().name, "192.0.2.1");
  EXPECT_EQ(server.m_hosts.front().port, 5112);
  EXPECT_EQ(server.m_hosts.front().socket, -1);
  EXPECT_EQ(server.log_facility(), LOG_LOCAL5);
  EXPECT_TRUE(server.m_use_timeout);
  EXPECT_EQ(server.m_timeout.tv_sec, 0);
  EXPECT_EQ(server.m_timeout.tv_usec, 100000);
  EXPECT_THAT(log.entries(), IsEmpty());
}

// The position of a member in its object.
struct Place {
  const char* begin;
  std::size_t size;
  std::size_t alignment;

  // The position of a next member that follows without a gap.
  [[nodiscard]] const char* next(std::size_t alignmentOfNext) const {
    const auto end = reinterpret_cast<std::uintptr_t>(begin) + size;
    return begin + size + (alignmentOfNext - end % alignmentOfNext) % alignmentOfNext;
  }
};

template <typename Member>
Place placeOf(const Member& member) {
  return {reinterpret_cast<const char*>(&member), sizeof(Member), alignof(Member)};
}

TEST_F(RunelTest, HasItsMembersInTheirOrderWithoutAGap) {
  const TestRunel server("192.0.2.1", false, 0);
  const std::vector<Place> places{
      placeOf(server.address_), placeOf(server.spare_),    placeOf(server.verbose_),
      placeOf(server.daemon_),  placeOf(server.handlers_), placeOf(server.slave_),
      placeOf(server.bridge_),  placeOf(server.agent_),    placeOf(server.retries_)};
  for (std::size_t i = 1; i < places.size(); ++i) {
    EXPECT_EQ(static_cast<const void*>(places[i].begin),
              static_cast<const void*>(places[i - 1].next(places[i].alignment)))
        << i;
  }
}

TEST_F(RunelTest, KeepsItsConstructorArguments) {
  const TestRunel server("192.0.2.1", true, 2);
  EXPECT_EQ(server.address_, "192.0.2.1");
  EXPECT_EQ(server.spare_, -1);
  EXPECT_EQ(server.verbose_, 2);
  EXPECT_EQ(server.daemon_, 1);
  EXPECT_EQ(server.retries_, 0);
}

TEST_F(RunelTest, StartsWithoutHandlersAndRoles) {
  const TestRunel server("192.0.2.1", false, 0);
  EXPECT_TRUE(server.handlers_.empty());
  EXPECT_EQ(server.slave_, nullptr);
  EXPECT_EQ(server.bridge_, nullptr);
  EXPECT_EQ(server.agent_, nullptr);
}

TEST_F(RunelTest, IgnoresTheAlarmSignal) {
  (void)std::signal(SIGALRM, SIG_DFL);
  const TestRunel server("192.0.2.1", false, 0);
  EXPECT_EQ(handlerOfSignal(SIGALRM), SIG_IGN);
}

TEST_F(RunelTest, LogsABannerAtTheStart) {
  TestRunel server("master.example", false, 3);
  server.handle_startup();
  EXPECT_THAT(
      log.entries(),
      ElementsAre(line(LOG_INFO, "start runeld (", getpid(), ") ", std::string(50, '=')),
                  line(LOG_INFO, " version = ", RUNELD_VERSION),
                  line(LOG_INFO, " address = master.example"), line(LOG_INFO, " daemon  = 0"),
                  line(LOG_INFO, " verbose = 3"), line(LOG_INFO, " port    = 5111")));
  EXPECT_THAT(log.controls(), IsEmpty()) << "only a daemon opens the log again";
}

TEST_F(RunelTest, OpensTheLogAgainAsADaemon) {
  TestRunel server("192.0.2.1", true, 0);
  server.handle_startup();
  EXPECT_THAT(log.controls(), ElementsAre("openlog runeld 0 168"));
  EXPECT_EQ(log.count("(PID)  daemon  = 1"), 1);
}

TEST_F(RunelTest, InstallsTheSignalHandlersAtTheStart) {
  TestRunel server("192.0.2.1", false, 0);
  server.handle_startup();
  EXPECT_EQ(handlerOfSignal(SIGTERM), &ServerBase::signal_quit);
  EXPECT_EQ(handlerOfSignal(SIGPIPE), SIG_IGN);
}

TEST_F(RunelTest, LogsNothingAboutATimeout) {
  TestRunel server("192.0.2.1", false, 9);
  server.handle_timeout();
  EXPECT_THAT(log.entries(), IsEmpty());
}

TEST_F(RunelTest, ForegroundRunEndsWithZeroAndTriesToStop) {
  TestRunel server("127.0.0.1", false, 0);
  EXPECT_EQ(runOnce(server), 0);
  EXPECT_EQ(log.entries().back(), line(LOG_ERR, "stop() called, not running as a daemon"));
  EXPECT_EQ(log.count("(PID) listening on port 5111"), 1);
  EXPECT_THAT(system.calls, IsEmpty());
}

TEST_F(RunelTest, ParentOfTheDaemonEndsWithZeroWithoutASignal) {
  system.forkResult = 4242;
  TestRunel server("127.0.0.1", true, 0);
  EXPECT_EQ(server.run(), 0);
  EXPECT_EQ(contentOf(kPidFile), "4242\n");
  EXPECT_THAT(system.calls, ElementsAre("fork"));
  EXPECT_THAT(log.entries(), ElementsAre(line(LOG_NOTICE, "daemon backgrounded")));
}

TEST_F(RunelTest, SecondDaemonEndsWithZeroWithoutASignal) {
  writePidFile("4242\n");
  system.living = {4242};
  TestRunel server("127.0.0.1", true, 0);
  EXPECT_EQ(server.run(), 0);
  EXPECT_EQ(contentOf(kPidFile), "4242\n");
  EXPECT_THAT(system.calls, ElementsAre("kill 4242 0"));
}

TEST_F(RunelTest, DaemonEndsWithZeroRemovesThePidFileAndSignalsItsProcess) {
  writePidFile("4242\n");  // as the parent would write it
  TestRunel server("127.0.0.1", true, 0);
  EXPECT_EQ(runOnce(server), 0);
  EXPECT_NE(access(kPidFile, F_OK), 0);
  EXPECT_THAT(system.calls, ElementsAre("kill 4242 0", "fork", "kill 4242 15"));
  EXPECT_EQ(log.entries().back(), line(LOG_INFO, "stop ServerBase with SIGTERM"));
}

TEST_F(RunelTest, FailedForkEndsWithZeroAndTriesToStop) {
  system.forkResult = -1;
  TestRunel server("127.0.0.1", true, 0);
  EXPECT_EQ(server.run(), 0);
  EXPECT_THAT(log.entries(),
              ElementsAre(line(LOG_ERR, "failed to fork"),
                          line(LOG_ERR, "unable to read pid file: No such file or directory")));
}

TEST_F(RunelTest, DeletesItsHandlersInAscendingOrderOfTheirSockets) {
  struct Last : RunelConnection {
    Last(int socket, std::vector<int>* order) : RunelConnection(socket, 1), order_(order) {}
    ~Last() override { order_->push_back(socket()); }
    std::vector<int>* order_;
  };
  std::vector<int> order;
  {
    TestRunel server("192.0.2.1", false, 0);
    for (const int socket : {900, 7, 40}) {
      server.handlers_[socket] = std::make_unique<Last>(socket, &order);
    }
    server.handlers_[30] = nullptr;  // of a replaced agent
  }
  EXPECT_THAT(order, ElementsAre(7, 40, 900));
}

class ListenFailureTest : public RunelTest {
 protected:
  Strings sleeps() const {
    Strings some;
    for (const std::string& call : system.calls) {
      if (call.compare(0, 6, "sleep ") == 0) {
        some.push_back(call);
      }
    }
    return some;
  }

  TestRunel server{"192.0.2.1", false, 0};
};

TEST_F(ListenFailureTest, FirstShowsTheProcessesAndEndsTheTftpServer) {
  system.popenOutput = "PID COMMAND\n1 init\n";
  EXPECT_TRUE(server.handle_listen_failure(5111));
  EXPECT_THAT(system.calls, ElementsAre("sleep 1", "popen /zell/bin/psreal alxw -L r", "pclose",
                                        "system /usr/bin/killall -TERM atftpd"));
  EXPECT_THAT(
      log.entries(),
      ElementsAre(line(LOG_WARNING, "failed to listen on the only port (5111), retrying"),
                  line(LOG_DEBUG, "PID COMMAND\n"), line(LOG_DEBUG, "1 init\n"),
                  line(LOG_DEBUG, "1 init\n"), line(LOG_WARNING, "/usr/bin/killall -TERM atftpd")));
}

TEST_F(ListenFailureTest, LogsTheUnfinishedLastLineOfTheListOnce) {
  system.popenOutput = "1 init\n2 sh";  // reading it meets the end of file
  (void)server.handle_listen_failure(5111);
  EXPECT_THAT(log.texts(LOG_DEBUG), ElementsAre("(PID) 1 init\n", "(PID) 2 sh"));
}

TEST_F(ListenFailureTest, ReadsLinesOfAtMost256Bytes) {
  system.popenOutput = std::string(300, 'x') + "\n";
  (void)server.handle_listen_failure(5111);
  const std::string rest = "(PID) " + std::string(45, 'x') + "\n";
  EXPECT_THAT(log.texts(LOG_DEBUG), ElementsAre("(PID) " + std::string(255, 'x'), rest, rest));
}

TEST_F(ListenFailureTest, LogsOneLineForAnEmptyList) {
  (void)server.handle_listen_failure(5111);
  EXPECT_THAT(log.texts(LOG_DEBUG), ElementsAre("(PID) "));
}

TEST_F(ListenFailureTest, LogsNoListWhenTheToolCannotBeRun) {
  system.popenFails = true;
  EXPECT_TRUE(server.handle_listen_failure(5111));
  EXPECT_THAT(log.texts(LOG_DEBUG), IsEmpty());
  EXPECT_THAT(system.calls, ElementsAre("sleep 1", "popen /zell/bin/psreal alxw -L r",
                                        "pclose null", "system /usr/bin/killall -TERM atftpd"));
}

TEST_F(ListenFailureTest, LogsAKillallThatCannotBeRun) {
  system.systemResult = -1;
  system.systemErrno = ENOMEM;
  EXPECT_TRUE(server.handle_listen_failure(5111));
  EXPECT_EQ(log.entries().back(),
            line(LOG_WARNING, "killall failed, (12, Cannot allocate memory)"));
}

TEST_F(ListenFailureTest, LogsNothingAboutAKillallThatFoundNoProcess) {
  system.systemResult = 256;
  EXPECT_TRUE(server.handle_listen_failure(5111));
  EXPECT_EQ(log.countContaining("killall failed"), 0);
}

TEST_F(ListenFailureTest, LaterOnesOnlyWait) {
  (void)server.handle_listen_failure(5111);
  log.clear();
  system.calls.clear();
  EXPECT_TRUE(server.handle_listen_failure(5111));
  EXPECT_THAT(log.entries(),
              ElementsAre(line(LOG_WARNING, "failed to listen on the only port (5111), retrying")));
  EXPECT_THAT(system.calls, ElementsAre("sleep 2"));
}

TEST_F(ListenFailureTest, FirstOneOfAnotherPortOnlyWaits) {
  EXPECT_TRUE(server.handle_listen_failure(80));
  EXPECT_EQ(log.count("(PID) failed to listen on the only port (80), retrying"), 1);
  EXPECT_THAT(system.calls, ElementsAre("sleep 1"));
}

TEST_F(ListenFailureTest, WaitsASecondLongerEachTimeAndRebootsAtTheThirtyFifth) {
  const auto begun = system.now;
  Strings expected;
  for (int failure = 1; failure <= 34; ++failure) {
    ASSERT_TRUE(server.handle_listen_failure(5111)) << failure;
    expected.push_back("sleep " + std::to_string(failure));
  }
  EXPECT_EQ(log.countContaining("reboot"), 0);
  ServerBase::s_run = true;
  log.clear();
  EXPECT_FALSE(server.handle_listen_failure(5111));
  EXPECT_THAT(
      log.entries(),
      ElementsAre(line(LOG_WARNING, "failed to listen on the only port (5111), retrying"),
                  line(LOG_ERR, "retry count exceeded, exiting"), line(LOG_ERR, "rebooting")));
  EXPECT_FALSE(ServerBase::s_run);
  expected.insert(expected.end(), {"sleep 35", "sleep 3"});
  EXPECT_EQ(sleeps(), expected);
  EXPECT_EQ(system.now - begun, std::chrono::seconds(630 + 3));
  const Strings last(system.calls.end() - 4, system.calls.end());
  EXPECT_THAT(last, ElementsAre("sleep 35", "sync", "sleep 3", "reboot 0x1234567"));
}

TEST_F(ListenFailureTest, EndsTheServerWhenTheRebootFails) {
  system.rebootResult = -1;
  system.rebootErrno = EPERM;
  for (int failure = 1; failure <= 34; ++failure) {
    (void)server.handle_listen_failure(5111);
  }
  ServerBase::s_run = true;
  EXPECT_FALSE(server.handle_listen_failure(5111));
  EXPECT_FALSE(ServerBase::s_run);
}

TEST_F(ListenFailureTest, WaitsItsFullTimeDespiteSignals) {
  const auto begun = system.now;
  (void)server.handle_listen_failure(5111);
  system.calls.clear();
  // Every sleep ends after 0.7 s at the latest.
  system.sleepTakes = [](unsigned) { return std::chrono::milliseconds(700); };
  (void)server.handle_listen_failure(5111);
  EXPECT_GE(system.now - begun, std::chrono::seconds(3));
  EXPECT_LT(system.now - begun, std::chrono::seconds(4));
  EXPECT_THAT(system.calls, ElementsAre("sleep 2", "sleep 2", "sleep 1"))
      << "what is left is rounded up";
}

TEST_F(ListenFailureTest, SeveralPortsAreRetriedImmediatelyAndSilently) {
  server.add_port(5113, false, true);
  for (int failure = 0; failure < 100; ++failure) {
    ASSERT_TRUE(server.handle_listen_failure(5111));
  }
  EXPECT_THAT(log.entries(), IsEmpty());
  EXPECT_THAT(system.calls, IsEmpty());
}

TEST_F(ListenFailureTest, WithoutAPortItRetriesImmediately) {
  server.m_ports.clear();
  EXPECT_TRUE(server.handle_listen_failure(5111));
  EXPECT_THAT(system.calls, IsEmpty());
}

// Holds the server's port, as another program would.
UniqueFd holdPort() {
  UniqueFd holder(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(5111);
  EXPECT_EQ(bind(holder.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  EXPECT_EQ(listen(holder.get(), 1), 0);
  return holder;
}

TEST_F(ListenFailureTest, RunListensAsSoonAsThePortIsFree) {
  UniqueFd holder = holdPort();
  system.sleepTakes = [&](unsigned length) {
    if (length == 3) {
      holder.reset();
    }
    return std::chrono::seconds(length);
  };
  EXPECT_EQ(runOnce(server), 0);
  EXPECT_THAT(sleeps(), ElementsAre("sleep 1", "sleep 2", "sleep 3"));
  EXPECT_EQ(log.countContaining("cannot bind socket: port = 5111"), 3);
  EXPECT_EQ(log.count("(PID) listening on port 5111"), 1);
}

TEST_F(ListenFailureTest, RunEndsWithZeroAfterTheReboot) {
  const UniqueFd holder = holdPort();
  int passes = 0;
  server.onLoop = [&](TestRunel&) { ++passes; };
  EXPECT_EQ(server.run(), 0);
  EXPECT_EQ(system.calls.back(), "reboot 0x1234567");
  EXPECT_EQ(sleeps().size(), 36U);
  EXPECT_EQ(passes, 0);
}

}  // namespace
}  // namespace zell::test
