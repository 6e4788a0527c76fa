// SPDX-License-Identifier: Apache-2.0
// An agent that sends an input, with a daemon in the test's process.
#include "control/input_agent.h"

#include <cerrno>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <runel/loop.h>

#include "base/unique_fd.h"
#include "output/style.h"
#include "support/spied_calls.h"
#include "support/temp_dir.h"
#include "unit/client/agent_port.h"
#include "unit/control/streams.h"

namespace runelctl {
namespace {

using ::testing::HasSubstr;
using zell::UniqueFd;
using zell::test::SpiedCalls;
using zell::test::TempDir;

class InputAgentTest : public ::testing::Test {
 protected:
  void start(int input, bool raw = false) {
    agent = std::make_unique<InputAgent>(
        loop, input,
        InputAgent::Options{runel::Address("127.0.0.1", daemon.port), runel::Milliseconds(60000),
                            linger, raw},
        InputAgent::Events{[this](const std::string& clause) { clauses.push_back(clause); },
                           [this](std::optional<Error> error) {
                             ended = true;
                             why = std::move(error);
                           }});
  }
  /// Starts with a pipe that has @p text, and its end.
  void sendText(const std::string& text, bool raw = false) {
    say(text);
    pipe.in.reset();
    start(pipe.out.get(), raw);
  }
  void say(const std::string& text) { ASSERT_TRUE(writeAll(pipe.in.get(), text)); }
  void runUntil(const std::function<bool()>& done) {
    test::runUntil(loop, [&] {
      daemon.serve();
      return done();
    });
  }
  void runUntilEnded() {
    runUntil([this] { return ended; });
    daemon.serve();
  }
  /// The error that ended it, with its hint.
  std::string error() const { return why ? why->what + " (" + why->hint + ")" : ""; }

  runel::Loop loop;
  runel::AgentPort daemon;
  test::Pipe pipe{1048576};
  runel::Milliseconds linger{1};
  std::unique_ptr<InputAgent> agent;
  std::vector<std::string> clauses;
  bool ended = false;
  std::optional<Error> why;
  TempDir dir;
};

TEST_F(InputAgentTest, SendsEachClauseOfTheInput) {
  sendText(" <a>1</a>\n\n<b/><c>2</c>");
  runUntilEnded();
  EXPECT_EQ(daemon.came, "<a>1</a>\r\n<b/>\r\n<c>2</c>\r\n");
  EXPECT_EQ(error(), "");
}

TEST_F(InputAgentTest, SendsAClauseThatArrivesInParts) {
  start(pipe.out.get());
  runUntil([this] { return daemon.agent.valid(); });
  for (const char byte : std::string("<a>1</a><b/>")) {
    say(std::string(1, byte));
    loop.turn(runel::Milliseconds(5));
  }
  runUntil([this] { return daemon.came == "<a>1</a>\r\n<b/>\r\n"; });
  EXPECT_FALSE(ended);
}

TEST_F(InputAgentTest, SendsARegularFile) {
  std::string text;
  std::string expected;
  for (int i = 0; i < 10000; ++i) {
    const std::string clause = "<n>" + std::to_string(i) + "</n>";
    text += clause + "\n";
    expected += clause + "\r\n";
  }
  const UniqueFd file(open(dir.write("input", text).c_str(), O_RDONLY | O_CLOEXEC));
  start(file.get());
  runUntilEnded();
  EXPECT_TRUE(daemon.came == expected);
}

TEST_F(InputAgentTest, StopsReadingWhileTheDaemonDoesNotRead) {
  std::string text;
  while (text.size() < 32000000) {
    text += "<a>" + std::string(10000, 'x') + "</a>\r\n";
  }
  const UniqueFd file(open(dir.write("input", text).c_str(), O_RDONLY | O_CLOEXEC));
  start(file.get());
  const auto place = [&] { return lseek(file.get(), 0, SEEK_CUR); };
  off_t before = -1;
  while (place() != before) {
    before = place();
    for (int i = 0; i < 50; ++i) {
      loop.turn(runel::Milliseconds(2));
    }
  }
  EXPECT_LT(before, 16000000) << "the input is kept in memory";
  runUntilEnded();
  EXPECT_TRUE(daemon.came == text);
}

TEST_F(InputAgentTest, ReportsReceivedClausesUntilItHasBeenIdle) {
  linger = runel::Milliseconds(300);
  sendText("<a/>");
  runUntil([this] { return !daemon.came.empty(); });
  daemon.say("<one/><two>2</two>");
  runUntilEnded();
  EXPECT_EQ(clauses, (std::vector<std::string>{"<one/>", "<two>2</two>"}));
}

TEST_F(InputAgentTest, InputThatStopsOrBlocksTheDaemonEndsIt) {
  const std::pair<std::string, std::string> inputs[] = {
      {"<a>\x01</a>", "byte 0x01 or 0x02 would stop the daemon"},
      {"<a/>\x02", "byte 0x01 or 0x02 would stop the daemon"},
      {"<a/>text", "input that does not begin with '<' would block the daemon's relay"}};
  for (const auto& [text, what] : inputs) {
    pipe = test::Pipe();
    sendText(text);
    runUntilEnded();
    EXPECT_EQ(error(), "standard input: " + what + " (--raw sends it anyway)");
    EXPECT_EQ(exitStatusOf(*why), 1);
    ended = false;
  }
}

TEST_F(InputAgentTest, RawInputIsSentUnchanged) {
  sendText("text\x01<a", true);
  runUntilEnded();
  EXPECT_EQ(daemon.came, "text\x01<a");
  EXPECT_EQ(error(), "");
}

TEST_F(InputAgentTest, AnIncompleteLastClauseIsAnError) {
  sendText("<a/><b>1</c>");
  runUntilEnded();
  EXPECT_THAT(error(), HasSubstr("the last clause is incomplete: its closing tag is missing"));
}

TEST_F(InputAgentTest, AClauseOfMoreThanOneMebibyteIsAnError) {
  start(pipe.out.get());
  runUntil([this] { return daemon.agent.valid(); });
  say("<a>");
  for (int i = 0; i < 11 && !ended; ++i) {
    say(std::string(100000, 'x'));
    for (int turn = 0; turn < 20 && !ended; ++turn) {
      loop.turn(runel::Milliseconds(1));
    }
  }
  runUntilEnded();
  EXPECT_THAT(error(), HasSubstr("a clause exceeds 1 MiB"));
}

TEST_F(InputAgentTest, AnInterruptedReadIsRepeated) {
  SpiedCalls calls;
  calls.fail("read", EINTR);
  sendText("<a/>");
  runUntilEnded();
  EXPECT_EQ(daemon.came, "<a/>\r\n");
  EXPECT_EQ(error(), "");
}

TEST_F(InputAgentTest, AFailedReadIsNotTheEndOfTheInput) {
  const UniqueFd file(open(dir.write("input", "<a/>").c_str(), O_RDONLY | O_CLOEXEC));
  SpiedCalls calls;
  calls.fail("read", EIO);
  start(file.get());
  runUntilEnded();
  EXPECT_EQ(error(), "standard input: Input/output error ()");
}

TEST_F(InputAgentTest, SaysWhyTheDaemonClosesTheConnection) {
  start(pipe.out.get());
  runUntil([this] { return daemon.agent.valid(); });
  daemon.agent.reset();
  runUntilEnded();
  EXPECT_THAT(error(), HasSubstr("(the daemon closes it when its connection to the master ends)"));
}

TEST_F(InputAgentTest, ARefusedConnectionEndsIt) {
  daemon.stopListening();
  start(pipe.out.get());
  runUntilEnded();
  EXPECT_THAT(error(), HasSubstr("Connection refused"));
  EXPECT_EQ(exitStatusOf(*why), kExitNoConnection);
}

TEST_F(InputAgentTest, CanBeDestroyedAtAnyTime) {
  start(pipe.out.get());
  agent.reset();  // before it connects
  loop.turn(runel::Milliseconds(1));
  start(pipe.out.get());
  runUntil([this] { return daemon.agent.valid(); });
  say("<a/>");
  agent.reset();
  for (int i = 0; i < 10; ++i) {
    loop.turn(runel::Milliseconds(1));
  }
  EXPECT_FALSE(ended);
}

}  // namespace
}  // namespace runelctl
