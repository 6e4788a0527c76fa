// SPDX-License-Identifier: Apache-2.0
// The socket of other processes: its place, and the request line of each process.
#include "control/control_socket.h"

#include <cerrno>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include <runel/loop.h>

#include "base/unique_fd.h"
#include "support/refused_call.h"
#include "support/temp_dir.h"
#include "unit/control/streams.h"

namespace runelctl {
namespace {

using ::testing::EndsWith;
using ::testing::HasSubstr;
using zell::UniqueFd;
using zell::test::runWithoutCall;
using zell::test::TempDir;

/// Another process, connected to @p path.
class Caller {
 public:
  explicit Caller(const std::string& path)
      : socket_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    connected =
        connect(socket_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
  }
  void say(const std::string& text) const {
    EXPECT_EQ(send(socket_.get(), text.data(), text.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(text.size()));
  }
  /// Reads what is there.
  void hear() {
    char part[65536];
    ssize_t got = recv(socket_.get(), part, sizeof part, MSG_DONTWAIT);
    while (got > 0) {
      heard.append(part, static_cast<std::size_t>(got));
      got = recv(socket_.get(), part, sizeof part, MSG_DONTWAIT);
    }
    ended = ended || got == 0 || (errno != EAGAIN && errno != EINTR);
  }
  void close() { socket_.reset(); }

  std::string heard;
  bool connected = false;
  bool ended = false;

 private:
  UniqueFd socket_;
};

class ControlSocketTest : public ::testing::Test {
 protected:
  std::unique_ptr<ControlSocket> make() {
    return std::make_unique<ControlSocket>(loop, [this](const std::string& line, UniqueFd socket) {
      lines.push_back(line);
      sockets.push_back(std::move(socket));
    });
  }
  void open() {
    control = make();
    ASSERT_EQ(control->open(path), "");
  }
  void runUntilEnded(Caller& caller) {
    test::runUntil(loop, [&] {
      caller.hear();
      return caller.ended;
    });
  }
  mode_t modeOf(const std::string& name) const {
    struct stat about {};
    EXPECT_EQ(stat(name.c_str(), &about), 0);
    return about.st_mode & 07777U;
  }

  TempDir dir;
  const std::string path = dir.file("run/socket");
  runel::Loop loop;
  std::vector<std::string> lines;
  std::vector<UniqueFd> sockets;
  std::unique_ptr<ControlSocket> control;
};

TEST_F(ControlSocketTest, OnlyItsUserCanReachIt) {
  open();
  EXPECT_EQ(modeOf(dir.file("run")), 0700U);
  EXPECT_EQ(modeOf(path), 0600U);
}

TEST_F(ControlSocketTest, IsRemovedAtTheEnd) {
  open();
  control.reset();
  EXPECT_EQ(access(path.c_str(), F_OK), -1);
}

TEST_F(ControlSocketTest, ReadsTheLineAndNothingBehindIt) {
  open();
  const Caller caller(path);
  caller.say("attach gw-3\nframe");
  test::runUntil(loop, [&] { return !lines.empty(); });
  EXPECT_EQ(lines, std::vector<std::string>{"attach gw-3"});
  char rest[8];
  EXPECT_EQ(recv(sockets[0].get(), rest, sizeof rest, MSG_DONTWAIT), 5);
  EXPECT_EQ(std::string(rest, 5), "frame");
}

TEST_F(ControlSocketTest, ALineMayArriveByteByByte) {
  open();
  const Caller caller(path);
  for (const char byte : std::string("devices\n")) {
    EXPECT_TRUE(lines.empty());
    caller.say(std::string(1, byte));
    loop.turn(runel::Milliseconds(20));
  }
  test::runUntil(loop, [&] { return !lines.empty(); });
  EXPECT_EQ(lines[0], "devices");
}

TEST_F(ControlSocketTest, ManyProcessesMayConnectAtOnce) {
  open();
  std::vector<std::unique_ptr<Caller>> callers;
  for (int i = 0; i < 200; ++i) {
    callers.push_back(std::make_unique<Caller>(path));
    callers.back()->say(std::to_string(i) + "\n");
  }
  test::runUntil(loop, [&] { return lines.size() == 200; });
}

TEST_F(ControlSocketTest, AProcessThatLeavesOrSendsNoLineIsDropped) {
  open();
  Caller leaving(path);
  leaving.say("attach");
  leaving.close();
  Caller wordy(path);
  wordy.say(std::string(2000, 'x'));
  runUntilEnded(wordy);
  EXPECT_EQ(lines, std::vector<std::string>());
}

TEST_F(ControlSocketTest, ALineHasAtMost1024Bytes) {
  open();
  const std::string longest(1024, 'x');
  const Caller caller(path);
  caller.say(longest + "\n");
  test::runUntil(loop, [&] { return !lines.empty(); });
  EXPECT_EQ(lines[0], longest);
  Caller tooLong(path);
  tooLong.say(longest + "x\n");
  runUntilEnded(tooLong);
  EXPECT_EQ(lines.size(), 1U);
}

TEST_F(ControlSocketTest, AnswersAProcessThatReadsSlowly) {
  open();
  Caller caller(path);
  caller.say("devices\n");
  test::runUntil(loop, [&] { return !lines.empty(); });
  const std::string text(3000000, 'x');
  control->sendAndClose(std::move(sockets[0]), text);
  loop.turn(runel::Milliseconds(0));
  runUntilEnded(caller);
  EXPECT_TRUE(caller.heard == text);
}

TEST_F(ControlSocketTest, ForgetsAProcessThatDoesNotWaitForItsAnswer) {
  open();
  Caller caller(path);
  caller.say("devices\n");
  test::runUntil(loop, [&] { return !lines.empty(); });
  caller.close();
  control->sendAndClose(std::move(sockets[0]), "answer");
  loop.turn(runel::Milliseconds(0));
  EXPECT_TRUE(Caller(path).connected) << "it still serves others";
}

TEST_F(ControlSocketTest, ClosesWaitingConnectionsAtTheEnd) {
  open();
  Caller silent(path);
  Caller waiting(path);
  waiting.say("devices\n");
  test::runUntil(loop, [&] { return !lines.empty(); });
  control->sendAndClose(std::move(sockets[0]), std::string(3000000, 'x'));
  control.reset();
  silent.hear();
  EXPECT_TRUE(silent.ended);
}

TEST_F(ControlSocketTest, RefusesProcessesOfOtherUsers) {
  open();
  ASSERT_EQ(chmod(dir.path().c_str(), 0755), 0);
  ASSERT_EQ(chmod(dir.file("run").c_str(), 0755), 0);
  ASSERT_EQ(chmod(path.c_str(), 0666), 0);
  constexpr uid_t kOtherUser = 65534;
  // The system call changes the user of this thread only.
  ASSERT_EQ(syscall(SYS_setresuid, -1, kOtherUser, -1), 0);
  Caller caller(path);
  ASSERT_EQ(syscall(SYS_setresuid, -1, 0, -1), 0);
  runUntilEnded(caller);
  EXPECT_EQ(caller.heard, "the master belongs to another user\n");
}

TEST_F(ControlSocketTest, ReplacesAStaleSocketButNotARunningMaster) {
  open();
  EXPECT_EQ(make()->open(path), path + ": another master is already running");
  EXPECT_TRUE(Caller(path).connected);
  ASSERT_EQ(link(path.c_str(), dir.file("run/stale").c_str()), 0);
  control.reset();
  ASSERT_EQ(rename(dir.file("run/stale").c_str(), path.c_str()), 0);
  open();
  EXPECT_TRUE(Caller(path).connected);
}

TEST_F(ControlSocketTest, RefusesADirectoryThatIsALink) {
  ASSERT_EQ(mkdir(dir.file("real").c_str(), 0700), 0);
  ASSERT_EQ(symlink(dir.file("real").c_str(), dir.file("run").c_str()), 0);
  EXPECT_THAT(make()->open(path), HasSubstr("run: not a private directory for the control socket"));
}

TEST_F(ControlSocketTest, RefusesADirectoryInWhichOthersCanCreateFiles) {
  ASSERT_EQ(mkdir(dir.file("run").c_str(), 0700), 0);
  for (const mode_t mode : {0770U, 0707U, 0777U}) {
    ASSERT_EQ(chmod(dir.file("run").c_str(), mode), 0);
    EXPECT_THAT(make()->open(path), EndsWith("Operation not permitted")) << mode;
  }
  ASSERT_EQ(chmod(dir.file("run").c_str(), 01777), 0);
  EXPECT_EQ(make()->open(path), "") << "others cannot remove files of this user there";
  ASSERT_EQ(chmod(dir.file("run").c_str(), 0700), 0);
  ASSERT_EQ(chown(dir.file("run").c_str(), 1, 1), 0);
  EXPECT_THAT(make()->open(path), EndsWith("Operation not permitted"));
}

TEST_F(ControlSocketTest, ReportsAPathThatIsTooLong) {
  const std::string name(sizeof sockaddr_un::sun_path, 'x');
  EXPECT_EQ(make()->open(dir.file(name)), dir.file(name) + ": File name too long");
  // The path fits, and that of the socket in /proc does not.
  const std::string shorter(100 - 6, 'x');
  EXPECT_EQ(make()->open("/tmp/" + shorter), "/tmp/" + shorter + ": File name too long");
}

TEST_F(ControlSocketTest, ReportsFailedSystemCalls) {
  const std::pair<long, std::string> calls[] = {{SYS_socket, "socket"},
                                                {SYS_bind, "bind"},
                                                {SYS_listen, "listen"},
                                                {SYS_epoll_ctl, "epoll_ctl"}};
  for (const auto& [number, name] : calls) {
    std::string wrong;
    runWithoutCall(number, ENOMEM, [&] { wrong = make()->open(path); });
    EXPECT_THAT(wrong, EndsWith("Cannot allocate memory")) << name;
    EXPECT_EQ(make()->open(path), "") << "after " << name;
  }
}

TEST_F(ControlSocketTest, AProcessWaitsWhileNoDescriptorIsFree) {
  open();
  const Caller caller(path);
  caller.say("devices\n");
  runWithoutCall(SYS_accept4, EMFILE, [&] {
    for (int i = 0; i < 10; ++i) {
      loop.turn(runel::Milliseconds(1));
    }
  });
  EXPECT_TRUE(lines.empty());
  test::runUntil(loop, [&] { return !lines.empty(); });
}

}  // namespace
}  // namespace runelctl
