// SPDX-License-Identifier: Apache-2.0
// The background start, the pid file, and stop().
#include <csignal>
#include <filesystem>
#include <fstream>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include "support/temp_dir.h"
#include "unit/server/peers.h"
#include "unit/server/recording_server.h"
#include "unit/server/server_test.h"

namespace zell::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

const std::string kPidFile = "/var/run/recorder.pid";

class ServerDaemon : public ServerTest {
 protected:
  void SetUp() override {
    std::filesystem::remove_all(kPidFile);
    ServerTest::SetUp();
    server_.onStarted = [] { ServerBase::s_run = false; };
  }

  void TearDown() override {
    if (server_.m_pid_fp != nullptr) {
      (void)std::fclose(server_.m_pid_fp);
    }
    ServerTest::TearDown();
    std::filesystem::remove_all(kPidFile);
  }

  static void writePidFile(const std::string& content) { std::ofstream(kPidFile) << content; }
  static bool exists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

  /// Runs as a daemon: in the parent (@p child above 0), in the child (0), or with a failed fork
  /// (below 0).
  int runAs(pid_t child) {
    sys.forkResult = child;
    return server_.run(true);
  }

  RecordingServer server_;
};

TEST_F(ServerDaemon, WritesTheChildsNumberInTheParentAndReturnsOne) {
  EXPECT_EQ(runAs(4321), 1);
  EXPECT_EQ(contentOf(kPidFile), "4321\n");
  EXPECT_EQ(server_.m_child_pid, 4321);
  EXPECT_THAT(sys.calls, ElementsAre("fork"));
  EXPECT_THAT(server_.calls, ElementsAre("shutdown")) << "the parent starts nothing";
  EXPECT_THAT(lines(), ElementsAre("NOTICE (PID) daemon backgrounded"));
}

TEST_F(ServerDaemon, LeavesNoTemporaryFileBesideThePidFile) {
  writePidFile("77\n");
  EXPECT_EQ(runAs(4321), 1);
  EXPECT_EQ(contentOf(kPidFile), "4321\n");
  int beside = 0;
  for (const auto& entry : std::filesystem::directory_iterator("/var/run")) {
    beside += entry.path().filename().string().rfind("recorder", 0) == 0 ? 1 : 0;
  }
  EXPECT_EQ(beside, 1);
}

TEST_F(ServerDaemon, CreatesThePidFileWithThePermissionsOfTheUmask) {
  for (const mode_t mask : {0022U, 0U}) {
    const mode_t before = umask(mask);
    EXPECT_EQ(runAs(4321), 1);
    umask(before);
    struct stat about {};
    ASSERT_EQ(stat(kPidFile.c_str(), &about), 0);
    EXPECT_EQ(about.st_mode & 07777U, 0666U & ~mask);
  }
}

// A reader with the old file open sees the complete old content, because the file is replaced.
TEST_F(ServerDaemon, ReplacesThePidFileAsAWhole) {
  writePidFile("77\n");
  std::ifstream old(kPidFile);
  EXPECT_EQ(runAs(4321), 1);
  std::string content;
  old >> content;
  EXPECT_EQ(content, "77");
}

TEST_F(ServerDaemon, ReplacesTheStaleFileOfAnInterruptedStart) {
  std::ofstream(kPidFile + ".new") << "half";
  EXPECT_EQ(runAs(4321), 1);
  EXPECT_EQ(contentOf(kPidFile), "4321\n");
  EXPECT_FALSE(exists(kPidFile + ".new"));
}

TEST_F(ServerDaemon, ReturnsOneWhenThePidFileCannotBeWritten) {
  OpenServer server("no/such/directory");
  sys.forkResult = 4321;
  EXPECT_EQ(server.run(true), 1);
  EXPECT_THAT(lines(), ElementsAre("NOTICE (PID) daemon backgrounded",
                                   "ERR (PID) unable to write pid file: No such file or "
                                   "directory"));
}

// Simulates a full file system: this process may not extend files.
TEST_F(ServerDaemon, KeepsTheOldPidFileWhenTheNewOneCannotBeWritten) {
  writePidFile("77\n");
  rlimit before{};
  getrlimit(RLIMIT_FSIZE, &before);
  const rlimit none{0, before.rlim_max};
  const auto oldHandler = signal(SIGXFSZ, SIG_IGN);
  setrlimit(RLIMIT_FSIZE, &none);
  const int result = runAs(4321);
  setrlimit(RLIMIT_FSIZE, &before);
  signal(SIGXFSZ, oldHandler);
  EXPECT_EQ(result, 1);
  EXPECT_EQ(contentOf(kPidFile), "77\n");
  EXPECT_FALSE(exists(kPidFile + ".new"));
  EXPECT_EQ(lines().back(), "ERR (PID) unable to write pid file: File too large");
}

TEST_F(ServerDaemon, ContinuesInTheChildWithoutWritingThePidFile) {
  EXPECT_EQ(runAs(0), 0);
  EXPECT_FALSE(exists(kPidFile));
  EXPECT_EQ(server_.m_child_pid, 0);
  EXPECT_THAT(server_.calls, ElementsAre("startup", "started", "shutdown"));
  EXPECT_THAT(lines(), IsEmpty());
}

TEST_F(ServerDaemon, StaysInItsDirectoryAndSession) {
  const auto directory = std::filesystem::current_path();
  const pid_t session = getsid(0);
  const mode_t mask = umask(0);
  umask(mask);
  EXPECT_EQ(runAs(0), 0);
  EXPECT_EQ(std::filesystem::current_path(), directory);
  EXPECT_EQ(getsid(0), session);
  EXPECT_EQ(umask(mask), mask);
}

TEST_F(ServerDaemon, ReturnsZeroWhenForkFails) {
  EXPECT_EQ(runAs(-1), 0);
  EXPECT_EQ(server_.m_child_pid, -1);
  EXPECT_FALSE(exists(kPidFile));
  EXPECT_THAT(server_.calls, ElementsAre("shutdown"));
  EXPECT_THAT(lines(), ElementsAre("ERR (PID) failed to fork"));
}

TEST_F(ServerDaemon, LogsNoSignalWhenForkFails) {
  ServerBase::s_signal = SIGTERM;
  EXPECT_EQ(runAs(-1), 0);
  EXPECT_EQ(log.countContaining("exiting on signal"), 0);
}

TEST_F(ServerDaemon, IsRefusedWhileAnotherLives) {
  writePidFile("4242\n");
  sys.living = {4242};
  EXPECT_EQ(runAs(0), -1);
  EXPECT_THAT(sys.calls, ElementsAre("kill 4242 0"));
  EXPECT_EQ(contentOf(kPidFile), "4242\n");
  EXPECT_EQ(server_.m_pid_fp, nullptr);
  EXPECT_THAT(server_.calls, ElementsAre("shutdown"));
  EXPECT_THAT(lines(), ElementsAre("ERR (4242) daemon is already running"));
}

TEST_F(ServerDaemon, StartsOverThePidFileOfADeadProcess) {
  writePidFile("4242\n");
  EXPECT_EQ(runAs(4321), 1);
  EXPECT_THAT(sys.calls, ElementsAre("kill 4242 0", "fork"));
  EXPECT_EQ(contentOf(kPidFile), "4321\n");
}

TEST_F(ServerDaemon, TakesTheLowBitsOfANumberThatNoProcessHas) {
  sys.living = {-1, 1215752191};
  writePidFile("4294967295\n");
  EXPECT_EQ(runAs(0), -1);
  writePidFile("99999999999\n");
  EXPECT_EQ(runAs(0), -1);
  EXPECT_THAT(sys.calls, ElementsAre("kill -1 0", "kill 1215752191 0"));
}

TEST_F(ServerDaemon, ReadsTheFirstNumberOfThePidFile) {
  writePidFile(" \n +4242 and more\n");
  sys.living = {4242};
  EXPECT_EQ(runAs(0), -1);
  EXPECT_THAT(lines(), ElementsAre("ERR (4242) daemon is already running"));
}

// 0 and negative numbers name process groups. A group that can be signalled counts as a daemon.
TEST_F(ServerDaemon, ChecksAnyNumberInThePidFile) {
  sys.living = {0, -1};
  writePidFile("0\n");
  EXPECT_EQ(runAs(0), -1);
  writePidFile("-1\n");
  EXPECT_EQ(runAs(0), -1);
  writePidFile("-2\n");
  EXPECT_EQ(runAs(0), 0);
  EXPECT_THAT(sys.calls, ElementsAre("kill 0 0", "kill -1 0", "kill -2 0", "fork"));
  EXPECT_THAT(lines(), ElementsAre("ERR (0) daemon is already running",
                                   "ERR (-1) daemon is already running"));
}

class UnreadablePidFile : public ServerDaemon {
 protected:
  void expectRefusal() {
    EXPECT_EQ(runAs(0), -1);
    EXPECT_NE(server_.m_pid_fp, nullptr) << "the stream stays open";
    EXPECT_THAT(sys.calls, IsEmpty());
    EXPECT_THAT(server_.calls, ElementsAre("shutdown"));
    EXPECT_THAT(lines(), ElementsAre("ERR (0) cannot parse pid file"));
  }
};

TEST_F(UnreadablePidFile, OfTextRefusesTheStart) {
  writePidFile("garbage 12\n");
  expectRefusal();
}

TEST_F(UnreadablePidFile, ThatIsEmptyRefusesTheStart) {
  writePidFile("");
  expectRefusal();
}

TEST_F(UnreadablePidFile, OfBinaryBytesRefusesTheStart) {
  writePidFile(std::string("\0\xff\x01", 3));
  expectRefusal();
}

TEST_F(UnreadablePidFile, ThatIsADirectoryRefusesTheStart) {
  ASSERT_EQ(mkdir(kPidFile.c_str(), 0700), 0);
  expectRefusal();
}

TEST_F(UnreadablePidFile, ThatIsAFifoRefusesTheStartImmediately) {
  ASSERT_EQ(mkfifo(kPidFile.c_str(), 0600), 0);
  expectRefusal();
}

TEST_F(ServerDaemon, StartsWhereThePidFileCannotBeOpened) {
  ASSERT_EQ(symlink(kPidFile.c_str(), kPidFile.c_str()), 0);  // ELOOP
  EXPECT_EQ(runAs(0), 0);
  EXPECT_THAT(lines(), IsEmpty());
}

// A signal during the fork must not be lost in the child.
TEST_F(ServerDaemon, BlocksSignalsBeforeTheFork) {
  server_.onStartup = [] {
    sigset_t held;
    sigprocmask(SIG_BLOCK, nullptr, &held);
    for (const int number : {SIGTERM, SIGQUIT, SIGABRT, SIGINT}) {
      EXPECT_EQ(sigismember(&held, number), 1) << number;
    }
    EXPECT_EQ(sigismember(&held, SIGHUP), 0);
  };
  EXPECT_EQ(runAs(0), 0);
}

TEST_F(ServerDaemon, RestoresTheSignalMaskInTheParent) {
  EXPECT_EQ(runAs(4321), 1);
  sigset_t held;
  sigprocmask(SIG_BLOCK, nullptr, &held);
  EXPECT_EQ(sigismember(&held, SIGTERM), 0);
}

// stop()

TEST_F(ServerDaemon, DoesNotStopInTheForeground) {
  writePidFile("4242\n");
  server_.stop();
  EXPECT_TRUE(exists(kPidFile));
  EXPECT_THAT(sys.calls, IsEmpty());
  EXPECT_THAT(lines(), ElementsAre("ERR (PID) stop() called, not running as a daemon"));
}

class StoppedDaemon : public ServerDaemon {
 protected:
  void SetUp() override {
    ServerDaemon::SetUp();
    server_.m_daemon = true;
  }
};

TEST_F(StoppedDaemon, RemovesThePidFileAndSignalsItsProcess) {
  writePidFile("4242\n");
  bool removedBeforeTheLine = false;
  log.onEntry = [&](const LogEntry&) { removedBeforeTheLine = !exists(kPidFile); };
  server_.stop();
  log.onEntry = nullptr;
  EXPECT_TRUE(removedBeforeTheLine);
  EXPECT_THAT(sys.calls, ElementsAre("kill 4242 15"));
  EXPECT_EQ(server_.m_pid_fp, nullptr);
  EXPECT_THAT(lines(), ElementsAre("INFO (PID) stop ServerBase with SIGTERM"));
}

TEST_F(StoppedDaemon, DoesNothingWithoutAPidFile) {
  server_.stop();
  EXPECT_THAT(sys.calls, IsEmpty());
  EXPECT_THAT(lines(), ElementsAre("ERR (PID) unable to read pid file: No such file or directory"));
}

TEST_F(StoppedDaemon, SignalsItsGroupWhenThePidFileHoldsNoNumber) {
  writePidFile("garbage");
  server_.stop();
  EXPECT_FALSE(exists(kPidFile));
  EXPECT_THAT(sys.calls, ElementsAre("kill 0 15"));
  EXPECT_THAT(lines(), ElementsAre("WARNING (PID) cannot parse pid file",
                                   "INFO (PID) stop ServerBase with SIGTERM"));
}

TEST_F(StoppedDaemon, SignalsItsGroupWhenThePidFileIsEmpty) {
  writePidFile("");
  server_.stop();
  EXPECT_FALSE(exists(kPidFile));
  EXPECT_THAT(sys.calls, ElementsAre("kill 0 15"));
}

TEST_F(StoppedDaemon, SignalsTheProcessInThePidFileAfterAFailedFork) {
  writePidFile("4242\n");
  EXPECT_EQ(runAs(-1), 0);
  server_.stop();
  EXPECT_FALSE(exists(kPidFile));
  EXPECT_THAT(sys.calls, ElementsAre("kill 4242 0", "fork", "kill 4242 15"));
}

// A daemon ends itself this way: its handler takes the signal.
TEST_F(StoppedDaemon, OnlyRecordsItsOwnSignal) {
  EXPECT_EQ(runAs(0), 0);
  raise(SIGTERM);
  EXPECT_EQ(ServerBase::s_signal, SIGTERM);
}

}  // namespace
}  // namespace zell::test
