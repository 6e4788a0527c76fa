// SPDX-License-Identifier: Apache-2.0
// Handlers that drop sockets, theirs and others, inside their operations.
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <zell/led_control.h>

#include "unit/agent/agent_case.h"

namespace zell::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

// The calls and the end of one handler.
struct Life {
  int messages = 0;
  int pendingAsked = 0;
  int stopAsked = 0;
  int ended = 0;
};

class Dropper : public RunelConnection {
 public:
  Dropper(int socket, std::shared_ptr<Life> life)
      : RunelConnection(socket, 1), life_(std::move(life)) {}
  ~Dropper() override { ++life_->ended; }

  bool inputPending() override {
    ++life_->pendingAsked;
    return onPending && onPending();
  }
  void handleMessage(std::string& /*packet*/) override {
    ++life_->messages;
    if (onMessage) {
      onMessage();
    }
    EXPECT_EQ(life_->ended, 0) << "destroyed under its own feet";
  }
  bool stopRequested() override {
    ++life_->stopAsked;
    return false;
  }

  std::function<void()> onMessage;
  std::function<bool()> onPending;

 private:
  std::shared_ptr<Life> life_;
};

class DropInsideTest : public AgentCase {
 protected:
  // A connection with its handler.
  struct Client {
    Peer peer;
    std::shared_ptr<Life> life;
    Dropper* handler;
  };

  Client connect() {
    Peer peer = server.accept();
    auto life = std::make_shared<Life>();
    Dropper& handler = server.serveWith(peer, std::make_unique<Dropper>(peer.socket(), life));
    return {std::move(peer), std::move(life), &handler};
  }
  Peer agentConnects() {
    Peer peer = server.accept();
    server.read(peer, "<a>");
    return peer;
  }

  TestRunel server{"192.0.2.1", false, 0};
};

TEST_F(DropInsideTest, OwnSocketFromHandleMessage) {
  Client client = connect();
  client.handler->onMessage = [&] { EXPECT_NE(server.drop_socket(client.peer.socket()), 0); };
  server.read(client.peer, "x");
  EXPECT_TRUE(client.peer.ended());
  EXPECT_FALSE(server.serves(client.peer.socket()));
  EXPECT_EQ(client.life->ended, 1);
}

TEST_F(DropInsideTest, OwnSocketTwiceFromHandleMessage) {
  Client client = connect();
  client.handler->onMessage = [&] {
    EXPECT_NE(server.drop_socket(client.peer.socket()), 0);
    EXPECT_EQ(server.drop_socket(client.peer.socket()), 0);
  };
  server.read(client.peer, "x");
  EXPECT_EQ(client.life->ended, 1);
}

TEST_F(DropInsideTest, OwnSocketBeforeAnException) {
  Client client = connect();
  client.handler->onMessage = [&] {
    (void)server.drop_socket(client.peer.socket());
    throw std::runtime_error("late");
  };
  server.read(client.peer, "x");
  EXPECT_EQ(log.count("(PID) handle_data_read: exception std::runtime_error: late"), 1);
  EXPECT_EQ(client.life->ended, 1);
}

TEST_F(DropInsideTest, OwnSocketBeforeAnExceptionThatIsNotCaught) {
  Client client = connect();
  client.handler->onMessage = [&] {
    (void)server.drop_socket(client.peer.socket());
    throw 7;
  };
  EXPECT_THROW(server.read(client.peer, "x"), int);
  EXPECT_EQ(client.life->ended, 1);
}

TEST_F(DropInsideTest, AnothersSocketFromHandleMessage) {
  Client client = connect();
  Client other = connect();
  client.handler->onMessage = [&] {
    (void)server.drop_socket(other.peer.socket());
    EXPECT_EQ(other.life->ended, 0) << "it may be the one that is being called, further out";
  };
  server.read(client.peer, "x");
  EXPECT_TRUE(other.peer.ended());
  EXPECT_EQ(other.life->ended, 1);
  EXPECT_EQ(client.life->ended, 0);
  EXPECT_FALSE(client.peer.ended());
}

TEST_F(DropInsideTest, OwnSocketFromInputPendingIsNoLongerDriven) {
  Client client = connect();
  client.handler->onPending = [&] {
    (void)server.drop_socket(client.peer.socket());
    return true;
  };
  server.handle_loop();
  EXPECT_EQ(client.life->messages, 0) << "its socket's number may be another's by now";
  EXPECT_EQ(client.life->ended, 1);
}

TEST_F(DropInsideTest, OwnSocketFromInputPendingDoesNotAffectItsSuccessor) {
  Client client = connect();
  std::vector<Client> successor;
  client.handler->onPending = [&] {
    (void)server.drop_socket(client.peer.socket());
    successor.push_back(connect());
    return true;
  };
  const int socket = client.peer.socket();
  server.handle_loop();
  ASSERT_EQ(successor.size(), 1U);
  ASSERT_EQ(successor[0].peer.socket(), socket) << "the number was not used again";
  EXPECT_EQ(client.life->messages, 0);
  EXPECT_EQ(successor[0].life->pendingAsked, 0);
  EXPECT_EQ(successor[0].life->ended, 0);
}

TEST_F(DropInsideTest, LaterSocketFromTheLoopIsNoLongerAsked) {
  Client first = connect();
  Client second = connect();
  Client third = connect();
  first.handler->onPending = [&] {
    (void)server.drop_socket(second.peer.socket());
    return false;
  };
  server.handle_loop();
  EXPECT_EQ(second.life->pendingAsked, 0);
  EXPECT_EQ(second.life->ended, 1);
  EXPECT_EQ(third.life->pendingAsked, 1);
}

TEST_F(DropInsideTest, EarlierSocketFromTheLoop) {
  Client first = connect();
  Client second = connect();
  second.handler->onPending = [&] {
    (void)server.drop_socket(first.peer.socket());
    return true;
  };
  server.handle_loop();
  EXPECT_EQ(first.life->pendingAsked, 1);
  EXPECT_EQ(first.life->ended, 1);
  EXPECT_EQ(second.life->messages, 1);
}

TEST_F(DropInsideTest, AllSocketsFromTheLoop) {
  Client first = connect();
  Client second = connect();
  Client third = connect();
  second.handler->onPending = [] { return true; };
  second.handler->onMessage = [&] {
    for (const Client* const client : {&first, &second, &third}) {
      (void)server.drop_socket(client->peer.socket());
    }
  };
  server.handle_loop();
  EXPECT_TRUE(server.handlers_.empty());
  EXPECT_EQ(third.life->pendingAsked, 0);
  for (const Client* const client : {&first, &second, &third}) {
    EXPECT_EQ(client->life->ended, 1);
    EXPECT_TRUE(client->peer.ended());
  }
}

TEST_F(DropInsideTest, OuterSocketFromANestedCall) {
  Client outer = connect();
  Client inner = connect();
  inner.handler->onMessage = [&] { (void)server.drop_socket(outer.peer.socket()); };
  outer.handler->onMessage = [&] {
    server.read(inner.peer, "x");
    EXPECT_EQ(outer.life->ended, 0);
  };
  server.read(outer.peer, "x");
  EXPECT_EQ(outer.life->ended, 1);
  EXPECT_EQ(inner.life->ended, 0);
}

TEST_F(DropInsideTest, SlaveBridgeAndAgentFromAClient) {
  const Peer slave = server.connect();
  const Peer agent = agentConnects();
  const Peer bridge = server.connect();
  Client client = connect();
  client.handler->onMessage = [&] { (void)server.drop_host_connection(slave.socket()); };
  server.read(client.peer, "x");
  EXPECT_TRUE(slave.ended() && bridge.ended() && agent.ended());
  EXPECT_EQ(server.handlers_.size(), 1U);
  EXPECT_EQ(FakeProxy::living().size(), 1U);
}

TEST_F(DropInsideTest, OwnConnectionFromARunningTask) {
  const Peer slave = server.connect();
  const Peer agent = agentConnects();
  const Peer bridge = server.connect();
  device.onCall = [&](const std::string& call) {
    if (call == "hostId") {
      (void)server.drop_host_connection(slave.socket());
    }
  };
  server.read(slave, request({"hostid"}) + request({"write", "/after", "data"}));
  EXPECT_EQ(device.files["/after"], "data") << "what had come is run";
  EXPECT_EQ(slave.received(), "");
  EXPECT_TRUE(slave.ended() && bridge.ended() && agent.ended());
  EXPECT_TRUE(server.handlers_.empty());
  EXPECT_THAT(FakeProxy::living(), IsEmpty());
  EXPECT_FALSE(LedControl::instance().blinkLeds(LedStyle::on));
}

TEST_F(DropInsideTest, LedControllerOutlivesTheConnectionThatDroveIt) {
  const Peer first = server.accept();
  const Peer second = server.accept();
  server.read(first, "\x01");
  server.read(second, "\x01");
  (void)server.drop_socket(second.socket());
  EXPECT_TRUE(LedControl::instance().blinkLeds(LedStyle::on));
  EXPECT_TRUE(device.firstLed && device.secondLed);
}

}  // namespace
}  // namespace zell::test
