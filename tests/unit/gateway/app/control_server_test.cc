// SPDX-License-Identifier: Apache-2.0
// The socket of local commands.
#include "gateway/app/control_server.h"

#include <cerrno>
#include <cstring>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "support/temp_dir.h"

namespace runelgw {
namespace {

using std::chrono::milliseconds;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class ControlServerTest : public testing::Test {
 protected:
  ControlServerTest() {
    server = std::make_unique<ControlServer>(
        loop, [this](const std::string& line, unsigned uid, ControlServer::Answer answer) {
          lines.push_back(line);
          users.push_back(uid);
          answers.push_back(std::move(answer));
        });
  }

  void open() {
    const runel::Result<void> opened = server->open(path);
    ASSERT_TRUE(opened) << opened.error().text();
  }

  [[nodiscard]] zell::UniqueFd connected() const {
    zell::UniqueFd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.data(), path.size());
    EXPECT_EQ(::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address),
              0);
    return socket;
  }

  void say(const zell::UniqueFd& socket, const std::string& text) {
    EXPECT_EQ(::send(socket.get(), text.data(), text.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(text.size()));
    turn();
  }

  // "", an answer, or "ended". Keeps a descriptor that comes with it.
  std::string hear(const zell::UniqueFd& socket) {
    turn();
    char bytes[4096];
    iovec part{bytes, sizeof bytes};
    alignas(cmsghdr) char control[64];
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    const ssize_t count = ::recvmsg(socket.get(), &message, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
    const cmsghdr* header = count > 0 ? CMSG_FIRSTHDR(&message) : nullptr;
    if (header != nullptr) {
      int descriptor = -1;
      std::memcpy(&descriptor, CMSG_DATA(header), sizeof descriptor);
      file.reset(descriptor);
    }
    return count == 0                     ? "ended"
           : count < 0 && errno != EAGAIN ? "ended"
           : count < 0                    ? ""
                                          : std::string(bytes, static_cast<std::size_t>(count));
  }

  // A few events may be pending: accepting, reading, writing.
  void turn() {
    for (int i = 0; i < 5; ++i) {
      loop.turn(milliseconds(0));
    }
  }

  const zell::test::TempDir directory;
  const std::string path = directory.file("control");
  runel::Loop loop;
  std::unique_ptr<ControlServer> server;
  std::vector<std::string> lines;
  std::vector<unsigned> users;
  std::vector<ControlServer::Answer> answers;
  zell::UniqueFd file;
};

TEST_F(ControlServerTest, AnswersEachLine) {
  open();
  const zell::UniqueFd caller = connected();
  say(caller, "{\"a\":");
  EXPECT_THAT(lines, IsEmpty());
  say(caller, "1}\n");
  ASSERT_THAT(lines, ElementsAre("{\"a\":1}"));
  EXPECT_EQ(users[0], ::getuid());
  EXPECT_EQ(hear(caller), "");
  answers[0]({"one", {}});
  EXPECT_EQ(hear(caller), "one\n");
  say(caller, "again\n");
  ASSERT_EQ(lines.size(), 2U);
  answers[1]({"two", {}});
  EXPECT_EQ(hear(caller), "two\n");
}

TEST_F(ControlServerTest, PassesADescriptorOn) {
  open();
  const std::string content = directory.write("content", "bytes");
  const zell::UniqueFd caller = connected();
  say(caller, "x\n");
  answers.at(0)({"{}", zell::UniqueFd(::open(content.c_str(), O_RDONLY | O_CLOEXEC))});
  EXPECT_EQ(hear(caller), "{}\n");
  char bytes[10];
  ASSERT_EQ(::read(file.get(), bytes, sizeof bytes), 5);
  EXPECT_EQ(std::string(bytes, 5), "bytes");
}

TEST_F(ControlServerTest, SendsALargeAnswerInParts) {
  open();
  const zell::UniqueFd caller = connected();
  say(caller, "x\n");
  const std::string large(3000000, 'x');
  answers.at(0)({large, {}});
  std::string heard;
  for (int i = 0; i < 100000 && heard.size() <= large.size(); ++i) {
    heard += hear(caller);
  }
  EXPECT_EQ(heard, large + "\n");
}

TEST_F(ControlServerTest, IsForItsUserOnly) {
  open();
  struct stat status {};
  ASSERT_EQ(::stat(path.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0600U);
}

TEST_F(ControlServerTest, ReplacesTheSocketOfAnEarlierProcess) {
  open();
  server.reset();
  EXPECT_NE(::access(path.c_str(), F_OK), 0) << "a stopped gateway leaves no socket";
  // A killed process leaves it.
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, path.data(), path.size());
  const zell::UniqueFd stale(::socket(AF_UNIX, SOCK_STREAM, 0));
  ASSERT_EQ(::bind(stale.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  ControlServer next(loop, [](const std::string&, unsigned, const ControlServer::Answer&) {});
  EXPECT_TRUE(next.open(path));
}

TEST_F(ControlServerTest, ReplacesNoOtherFile) {
  directory.write("control", "precious");
  const runel::Result<void> opened = server->open(path);
  ASSERT_FALSE(opened);
  EXPECT_THAT(opened.error().text(), HasSubstr(path));
  EXPECT_EQ(zell::test::contentOf(path), "precious");
}

TEST_F(ControlServerTest, DropsACallerThatSendsTooMuch) {
  open();
  const zell::UniqueFd caller = connected();
  const std::string part(4000, 'x');
  for (int i = 0; i < 17; ++i) {
    (void)::send(caller.get(), part.data(), part.size(), MSG_NOSIGNAL);
    turn();
  }
  EXPECT_EQ(hear(caller), "ended");
  EXPECT_THAT(lines, IsEmpty());
}

TEST_F(ControlServerTest, DropsACallerThatDoesNotWaitForItsAnswer) {
  open();
  const zell::UniqueFd caller = connected();
  say(caller, "one\n");
  say(caller, "two\n");
  EXPECT_EQ(hear(caller), "ended");
  EXPECT_THAT(lines, ElementsAre("one"));
  answers.at(0)({"late", {}});
}

TEST_F(ControlServerTest, IgnoresAnAnswerToACallerThatHasGone) {
  open();
  zell::UniqueFd caller = connected();
  say(caller, "x\n");
  caller.reset();
  turn();
  answers.at(0)({"late", {}});
  const zell::UniqueFd other = connected();
  say(other, "y\n");
  answers.at(1)({"now", {}});
  EXPECT_EQ(hear(other), "now\n");
}

TEST_F(ControlServerTest, IgnoresAnAnswerAfterItsEnd) {
  open();
  const zell::UniqueFd caller = connected();
  say(caller, "x\n");
  server.reset();
  answers.at(0)({"late", {}});
  EXPECT_EQ(hear(caller), "ended");
}

TEST_F(ControlServerTest, LimitsTheNumberOfCallers) {
  open();
  std::vector<zell::UniqueFd> callers;
  for (int i = 0; i < 17; ++i) {
    callers.push_back(connected());
    turn();
  }
  EXPECT_EQ(hear(callers[16]), "ended");
  EXPECT_EQ(hear(callers[15]), "");
}

}  // namespace
}  // namespace runelgw
