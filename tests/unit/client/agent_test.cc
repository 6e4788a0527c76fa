// SPDX-License-Identifier: Apache-2.0
// The local agent, over loopback, with a daemon in the test's process.
#include <cerrno>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <runel/agent.h>

#include "unit/client/agent_port.h"
#include "unit/client/scripted_device.h"

namespace runel {
namespace {

const std::vector<std::string>& malformed() {
  static const std::vector<std::string> kTexts{
      "", "text", "<a>", "<a/>x", "<a/><b/>", "<a>\x01</a>", "<a/>\x02", "<a", "<a b>x</a>"};
  return kTexts;
}

class AgentTest : public ::testing::Test {
 protected:
  void start() {
    AsyncAgent::Handlers handlers;
    handlers.clause = [this](const std::string& clause) {
      clauses.push_back(clause);
      called("clause");
    };
    handlers.end = [this](const Error& error) {
      ended = error;
      called("end");
    };
    handlers.connected = [this] { called("connected"); };
    handlers.progress = [this] { called("progress"); };
    agent = std::make_unique<AsyncAgent>(loop, Address("127.0.0.1", daemon.port),
                                         Milliseconds(60000), std::move(handlers));
  }
  // A generous limit against a hang.
  void runUntil(const std::function<bool()>& done) {
    for (int i = 0; i < 12000 && !done(); ++i) {
      loop.turn(Milliseconds(5));
      daemon.serve();
    }
    ASSERT_TRUE(done());
  }

  Loop loop;
  AgentPort daemon;
  std::unique_ptr<AsyncAgent> agent;
  std::vector<std::string> clauses;
  std::optional<Error> ended;
  std::function<void(const std::string& handler)> called = [](const std::string&) {};
};

TEST_F(AgentTest, SendsClausesThatWereQueuedBeforeItConnected) {
  start();
  ASSERT_TRUE(agent->send(" <a>1</a> "));
  ASSERT_TRUE(agent->send("<b/>"));
  EXPECT_EQ(agent->queued(), 16U);
  runUntil([&] { return daemon.came.size() >= 16; });
  EXPECT_EQ(daemon.came, "<a>1</a>\r\n<b/>\r\n");
  EXPECT_EQ(agent->queued(), 0U);
}

TEST_F(AgentTest, ReportsClausesHoweverTheyArrive) {
  start();
  runUntil([&] { return daemon.agent.valid(); });
  for (const char byte : std::string("<a>1</a>\r\n <b/><c>\xff</c>")) {
    daemon.say(std::string(1, byte));
    loop.turn(Milliseconds(1));
  }
  runUntil([&] { return clauses.size() == 3; });
  EXPECT_EQ(clauses, (std::vector<std::string>{"<a>1</a>", "<b/>", "<c>\xff</c>"}));
}

TEST_F(AgentTest, MalformedClausesAreNotSent) {
  start();
  for (const std::string& text : malformed()) {
    const Result<void> sent = agent->send(text);
    ASSERT_FALSE(sent) << text;
    EXPECT_EQ(sent.error().kind(), Kind::local) << text;
  }
  EXPECT_EQ(agent->queued(), 0U);
}

TEST_F(AgentTest, RawBytesAreNotChecked) {
  start();
  agent->sendRaw("any\x01");
  runUntil([&] { return daemon.came.size() >= 4; });
  EXPECT_EQ(daemon.came, "any\x01");
}

TEST_F(AgentTest, KeepsTheOrderWhenTheDaemonReadsSlowly) {
  start();
  std::string expected;
  for (int i = 0; i < 100; ++i) {
    const std::string clause =
        "<n>" + std::string(100000, static_cast<char>('a' + i % 26)) + "</n>";
    ASSERT_TRUE(agent->send(clause));
    expected += clause + "\r\n";
  }
  for (int i = 0; i < 50; ++i) {
    loop.turn(Milliseconds(1));  // the daemon does not read
  }
  EXPECT_GT(agent->queued(), 0U);
  runUntil([&] { return daemon.came.size() >= expected.size(); });
  EXPECT_TRUE(daemon.came == expected);
}

TEST_F(AgentTest, ReportsTheEndOnce) {
  start();
  runUntil([&] { return daemon.agent.valid(); });
  daemon.agent.reset();
  runUntil([&] { return ended.has_value(); });
  EXPECT_EQ(ended->cause(), Cause::closed);
  EXPECT_TRUE(agent->send("<a/>")) << "ignored";
  ended.reset();
  loop.turn(Milliseconds(10));
  EXPECT_FALSE(ended);
}

TEST_F(AgentTest, RefusedConnectionIsItsEnd) {
  daemon.stopListening();
  start();
  runUntil([&] { return ended.has_value(); });
  EXPECT_EQ(ended->number(), ECONNREFUSED);
  EXPECT_EQ(ended->outcome(), Outcome::notSent);
}

TEST_F(AgentTest, ClauseWithoutAnEndIsAProtocolError) {
  start();
  runUntil([&] { return daemon.agent.valid(); });
  const std::string part(100000, 'x');
  daemon.say("<a>");
  for (int i = 0; i < 12 && !ended; ++i) {
    daemon.say(part);
    for (int turn = 0; turn < 20 && !ended; ++turn) {
      loop.turn(Milliseconds(1));
    }
  }
  runUntil([&] { return ended.has_value(); });
  EXPECT_EQ(ended->cause(), Cause::protocol);
  char byte = 0;
  EXPECT_TRUE(recv(daemon.agent.get(), &byte, 1, MSG_DONTWAIT) == 0 || errno == ECONNRESET)
      << "it is closed at once";
}

TEST_F(AgentTest, TellsWhyItEnded) {
  bool connected = false;
  called = [&](const std::string& handler) { connected = connected || handler == "connected"; };
  start();
  runUntil([&] { return connected && daemon.agent.valid(); });
  const linger none{1, 0};
  ASSERT_EQ(setsockopt(daemon.agent.get(), SOL_SOCKET, SO_LINGER, &none, sizeof none), 0);
  daemon.agent.reset();
  runUntil([&] { return ended.has_value(); });
  EXPECT_EQ(ended->text(), "Connection reset by peer");
  EXPECT_EQ(ended->number(), ECONNRESET);
}

TEST_F(AgentTest, EveryHandlerMayDestroyTheAgent) {
  for (const std::string handler : {"connected", "progress", "clause", "end"}) {
    bool gone = false;
    called = [this, handler, &gone](const std::string& name) {
      EXPECT_TRUE(agent) << name << " after the destruction";
      if (name == handler) {
        agent.reset();
        gone = true;  // a variable of this function, which must still exist
      }
    };
    start();
    runUntil([&] { return gone || daemon.agent.valid(); });
    if (!gone) {
      daemon.say("<a/><b/>");
      runUntil([&] { return gone || clauses.size() == 2; });
    }
    daemon.agent.reset();
    runUntil([&] { return gone; });
    clauses.clear();
  }
}

TEST(BlockingAgentTest, SendsAndReceives) {
  AgentPort daemon;
  Agent agent(daemon.text());
  ASSERT_TRUE(agent.send("<a>1</a>"));
  daemon.serve();
  EXPECT_EQ(daemon.came, "<a>1</a>\r\n");
  daemon.say("<one/><two/>");
  for (const char* clause : {"<one/>", "<two/>"}) {
    const auto received = agent.receive(Milliseconds(60000));
    ASSERT_TRUE(received && *received) << clause;
    EXPECT_EQ(**received, clause);
  }
  const auto nothing = agent.receive(Milliseconds(10));
  ASSERT_TRUE(nothing);
  EXPECT_FALSE(*nothing);
}

TEST(BlockingAgentTest, MalformedClauseDoesNotConnect) {
  AgentPort daemon;
  Agent agent(daemon.text());
  for (const std::string& text : malformed()) {
    EXPECT_EQ(agent.send(text).error().kind(), Kind::local) << text;
  }
  daemon.serve();
  EXPECT_FALSE(daemon.agent.valid());
}

TEST(BlockingAgentTest, ConnectsAgainAfterTheEnd) {
  AgentPort daemon;
  Agent agent(daemon.text());
  ASSERT_TRUE(agent.send("<a/>"));
  daemon.serve();
  daemon.say("<last/>");
  daemon.agent.reset();
  const auto last = agent.receive(Milliseconds(60000));
  ASSERT_TRUE(last && *last);
  EXPECT_EQ(**last, "<last/>");
  EXPECT_EQ(agent.receive(Milliseconds(60000)).error().cause(), Cause::closed);
  daemon.came.clear();
  ASSERT_TRUE(agent.send("<b/>"));
  daemon.serve();
  EXPECT_EQ(daemon.came, "<b/>\r\n");
}

TEST(BlockingAgentTest, SendsOnANewConnectionAfterTheEndOfAnIdleOne) {
  AgentPort daemon;
  Agent agent(daemon.text());
  ASSERT_TRUE(agent.send("<a/>"));
  daemon.serve();
  daemon.agent.reset();
  daemon.came.clear();
  ASSERT_TRUE(agent.send("<b/>"));
  daemon.serve();
  EXPECT_EQ(daemon.came, "<b/>\r\n");
}

TEST(BlockingAgentTest, SendingHasATimeout) {
  const AgentPort daemon;
  Agent agent(daemon.text(), Milliseconds(100));
  const auto sent = agent.send("<a>" + std::string(30000000, 'x') + "</a>");
  ASSERT_FALSE(sent);
  EXPECT_EQ(sent.error().kind(), Kind::timeout);
  EXPECT_EQ(sent.error().outcome(), Outcome::unknown);
}

TEST(BlockingAgentTest, TheEndOfTheDaemonEndsSending) {
  AgentPort daemon;
  std::thread peer([&] {
    while (!daemon.agent.valid()) {
      daemon.serve();
    }
    daemon.agent.reset();
  });
  Agent agent(daemon.text());
  const auto sent = agent.send("<a>" + std::string(30000000, 'x') + "</a>");
  peer.join();
  ASSERT_FALSE(sent);
  EXPECT_EQ(sent.error().kind(), Kind::link);
  EXPECT_EQ(sent.error().outcome(), Outcome::unknown);
}

TEST(BlockingAgentTest, RefusedConnectionFailsEachCall) {
  AgentPort daemon;
  daemon.stopListening();
  Agent agent(daemon.text());
  EXPECT_EQ(agent.send("<a/>").error().number(), ECONNREFUSED);
  EXPECT_EQ(agent.receive(Milliseconds(0)).error().number(), ECONNREFUSED);
}

TEST(BlockingAgentTest, MovesWithItsConnection) {
  AgentPort daemon;
  Agent first("localhost:" + std::to_string(daemon.port));
  ASSERT_TRUE(first.send("<a/>"));
  Agent second(std::move(first));
  ASSERT_TRUE(second.send("<b/>"));
  Agent third("127.0.0.1:9");
  third = std::move(second);
  ASSERT_TRUE(third.send("<c/>"));
  daemon.serve();
  EXPECT_EQ(daemon.came, "<a/>\r\n<b/>\r\n<c/>\r\n");
}

TEST(BlockingAgentTest, InvalidAddressFailsInTheFirstCall) {
  for (const char* address : {"a:b:c", "@gw-3"}) {
    Agent agent(address);
    EXPECT_EQ(agent.send("<a/>").error().kind(), Kind::local) << address;
    EXPECT_EQ(agent.receive(Milliseconds(0)).error().kind(), Kind::local) << address;
  }
}

}  // namespace
}  // namespace runel
