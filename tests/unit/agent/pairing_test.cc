// SPDX-License-Identifier: Apache-2.0
// The slave connection, the agent and its bridge: how they are connected, linked and closed.
#include <string>
#include <vector>

#include <syslog.h>

#include "unit/agent/agent_case.h"

namespace zell::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

using Lines = std::vector<LogEntry>;

constexpr char kMaster[] = "192.0.2.1";

// Each case runs with two verbosities: LOG_DEBUG lines need a verbosity above 0.
class PairingTest : public AgentCase, public ::testing::WithParamInterface<int> {
 protected:
  PairingTest() { device.files["/file"] = ""; }

  // The lines of @p lines that this verbosity logs.
  static Lines seen(const Lines& lines) {
    Lines some;
    for (const LogEntry& entry : lines) {
      if (entry.priority != LOG_DEBUG || GetParam() > 0) {
        some.push_back(entry);
      }
    }
    return some;
  }
  Peer agentConnects(const std::string& packet = "<a>") {
    Peer peer = server.accept();
    server.read(peer, packet);
    return peer;
  }

  // The log lines of a drop.
  static LogEntry droppingSlave(const Peer& peer) {
    return line(LOG_DEBUG, "drop_host_connection: dropping slave connection, socket ",
                peer.socket());
  }
  static LogEntry droppingBridge(const Peer& peer) {
    return line(LOG_DEBUG, "drop_host_connection: dropping agent bridge, socket ", peer.socket());
  }
  static LogEntry droppingAgent(const Peer& peer) {
    return line(LOG_DEBUG, "drop_socket: dropping update manager agent socket ", peer.socket());
  }
  static LogEntry droppingTelnet(const Peer& peer) {
    return line(LOG_DEBUG, "drop_socket: dropping telnet (?) socket ", peer.socket());
  }
  static LogEntry closed(const Peer& peer) {
    return line(LOG_INFO, "closing connection ", kMaster, ", socket ", peer.socket());
  }
  static LogEntry dropped(const Peer& peer) {
    return line(LOG_INFO, "dropping connection: ", peer.socket());
  }

  std::vector<int> hostSockets() const {
    std::vector<int> sockets;
    for (const Host& host : server.m_hosts) {
      sockets.push_back(host.socket);
    }
    return sockets;
  }

  TestRunel server{kMaster, false, GetParam()};
};

INSTANTIATE_TEST_SUITE_P(Verbosity, PairingTest, ::testing::Values(0, 1),
                         [](const auto& level) { return level.param == 0 ? "Quiet" : "Verbose"; });

TEST_P(PairingTest, FirstConnectionBecomesTheSlaveConnection) {
  const Peer slave = server.connect();
  EXPECT_EQ(log.entries(),
            seen({line(LOG_DEBUG, "handle_outgoing_connection: creating slave connection, socket ",
                       slave.socket())}));
  ASSERT_NE(server.slave_, nullptr);
  EXPECT_EQ(server.handlerOf<ByteCountSlave>(slave), server.slave_);
  EXPECT_EQ(server.bridge_, nullptr);
  server.read(slave, kExists);
  EXPECT_EQ(slave.received(), reply(""));
}

TEST_P(PairingTest, SecondConnectionBecomesTheBridgeAndIsLinkedBothWays) {
  const Peer slave = server.connect();
  const Peer agent = agentConnects("<a/>");
  log.clear();
  const Peer bridge = server.connect();
  EXPECT_EQ(log.entries(),
            seen({line(LOG_DEBUG, "handle_outgoing_connection: creating agent bridge, socket ",
                       bridge.socket())}));
  EXPECT_EQ(server.handlerOf<XmlSlave>(bridge), server.bridge_);
  EXPECT_EQ(bridge.received(), "<a/>\r\n");
  server.read(bridge, "<b/>");
  EXPECT_EQ(agent.received(), "<b/>\r\n");
  server.read(agent, "<c/>");
  EXPECT_EQ(bridge.received(), "<c/>\r\n");
  EXPECT_EQ(slave.received(), "");
}

TEST_P(PairingTest, AgentThatConnectsFirstWaitsForBothConnections) {
  const Peer agent = agentConnects("<a/>");
  EXPECT_THAT(hostSockets(), ElementsAre(-1, -1));
  const Peer slave = server.connect();
  EXPECT_EQ(server.bridge_, nullptr);
  EXPECT_EQ(slave.received(), "");
  const Peer bridge = server.connect();
  EXPECT_EQ(bridge.received(), "<a/>\r\n");
  EXPECT_THAT(hostSockets(), ElementsAre(slave.socket(), bridge.socket()));
}

TEST_P(PairingTest, LinkingFlushesTheInputOfBothSides) {
  const Peer slave = server.connect();
  server.add_host(kMaster, 5112);
  const Peer bridge = server.connect();
  server.read(bridge, "<from-master/>");
  const Peer agent = agentConnects("<from-agent/>");
  EXPECT_EQ(agent.received(), "<from-master/>\r\n");
  EXPECT_EQ(bridge.received(), "<from-agent/>\r\n");
  EXPECT_EQ(slave.received(), "");
}

TEST_P(PairingTest, BridgeIsLinkedBeforeTheAgent) {
  const Peer slave = server.connect();
  server.add_host(kMaster, 5112);
  const Peer bridge = server.connect();
  server.read(bridge, "!bridge");
  const Peer early = agentConnects("<early>");
  log.clear();
  const Peer late = agentConnects("<late>");
  // Each link warns about blocked input of its side; the packet is relayed when both are linked.
  const Lines warnings = {
      line(LOG_ERR, "handle_data_read: error orphaning agent_ (socket ", early.socket(),
           "), socket ", late.socket()),
      line(LOG_INFO, "handle_data_read: creating agent socket handler, socket ", late.socket()),
      line(LOG_WARNING, "nextXmlClause: expecting '<' at 0, got '!bridge'"),
      line(LOG_WARNING, "nextXmlClause: closing not found, size = 6, buffer ='<late>...'")};
  Lines shown = log.entries();
  if (GetParam() > 0) {
    shown.erase(shown.begin());  // the line about the new socket
  }
  EXPECT_EQ(shown, warnings);
}

TEST_P(PairingTest, BridgeWithoutAnAgentStaysUnlinked) {
  const Peer slave = server.connect();
  server.add_host(kMaster, 5112);
  log.clear();
  const Peer bridge = server.connect();
  EXPECT_EQ(log.entries(),
            seen({line(LOG_DEBUG, "handle_outgoing_connection: creating agent bridge, socket ",
                       bridge.socket()),
                  line(LOG_ERR, "handle_outgoing_connection: null agent_")}));
  ASSERT_NE(server.bridge_, nullptr);
  log.clear();
  server.read(bridge, "<a/>");
  EXPECT_THAT(log.entries(),
              ElementsAre(line(LOG_WARNING, "handleMessage: no peer_ link, buffering '<a/>'")));
}

TEST_P(PairingTest, AgentThatFindsABridgeAddsNoHost) {
  const Peer slave = server.connect();
  server.add_host(kMaster, 5112);
  const Peer bridge = server.connect();
  const Peer agent = agentConnects("<a/>");
  EXPECT_EQ(server.m_hosts.size(), 2U);
  EXPECT_EQ(bridge.received(), "<a/>\r\n");
}

TEST_P(PairingTest, ThirdConnectionIsAnErrorAndGetsNoHandler) {
  const Peer slave = server.connect();
  const Peer agent = agentConnects();
  const Peer bridge = server.connect();
  server.add_host(kMaster, 5112);
  log.clear();
  const Peer surplus = server.connect();
  EXPECT_EQ(
      log.entries(),
      (Lines{line(LOG_ERR, "handle_outgoing_connection: error, connections already set, socket ",
                  surplus.socket())}));
  EXPECT_FALSE(server.serves(surplus.socket()));
  EXPECT_FALSE(surplus.ended());
}

TEST_P(PairingTest, SlaveAloneIsDroppedAndReconnectable) {
  const Peer slave = server.connect();
  log.clear();
  EXPECT_NE(server.drop_host_connection(slave.socket()), 0);
  EXPECT_EQ(log.entries(), seen({droppingSlave(slave), closed(slave)}));
  EXPECT_EQ(server.slave_, nullptr);
  EXPECT_TRUE(server.handlers_.empty());
  EXPECT_TRUE(slave.ended());
  EXPECT_THAT(hostSockets(), ElementsAre(-1));
  const Peer again = server.connect();
  EXPECT_EQ(server.handlerOf<ByteCountSlave>(again), server.slave_);
}

TEST_P(PairingTest, LostSlaveClosesBridgeAndAgent) {
  const Peer slave = server.connect();
  const Peer agent = agentConnects();
  const Peer bridge = server.connect();
  log.clear();
  EXPECT_NE(server.drop_host_connection(slave.socket()), 0);
  EXPECT_EQ(log.entries(), seen({droppingSlave(slave), closed(slave), droppingBridge(bridge),
                                 closed(bridge), dropped(agent), droppingAgent(agent)}));
  EXPECT_TRUE(server.handlers_.empty());
  EXPECT_TRUE(server.slave_ == nullptr && server.bridge_ == nullptr && server.agent_ == nullptr);
  EXPECT_TRUE(slave.ended() && bridge.ended() && agent.ended());
  EXPECT_THAT(hostSockets(), ElementsAre(-1));
  EXPECT_TRUE(server.m_connections.empty());
}

TEST_P(PairingTest, LostSlaveClosesAWaitingAgent) {
  const Peer slave = server.connect();
  const Peer agent = agentConnects();
  log.clear();
  EXPECT_NE(server.drop_host_connection(slave.socket()), 0);
  EXPECT_EQ(log.entries(),
            seen({droppingSlave(slave), closed(slave), dropped(agent), droppingAgent(agent)}));
  EXPECT_TRUE(server.handlers_.empty());
  EXPECT_THAT(hostSockets(), ElementsAre(-1, -1)) << "the bridge's host is only removed with it";
}

TEST_P(PairingTest, LostBridgeClosesTheAgent) {
  const Peer slave = server.connect();
  const Peer agent = agentConnects();
  const Peer bridge = server.connect();
  log.clear();
  EXPECT_NE(server.drop_host_connection(bridge.socket()), 0);
  EXPECT_EQ(log.entries(),
            seen({droppingBridge(bridge), closed(bridge), dropped(agent), droppingAgent(agent)}));
  EXPECT_EQ(server.handlers_.size(), 1U);
  EXPECT_EQ(server.handlerOf<ByteCountSlave>(slave), server.slave_);
  EXPECT_FALSE(slave.ended());
  EXPECT_TRUE(bridge.ended() && agent.ended());
  EXPECT_THAT(hostSockets(), ElementsAre(slave.socket()));
}

TEST_P(PairingTest, LostBridgeWithoutAnAgentClosesNothingElse) {
  const Peer slave = server.connect();
  server.add_host(kMaster, 5112);
  const Peer bridge = server.connect();
  log.clear();
  EXPECT_NE(server.drop_host_connection(bridge.socket()), 0);
  EXPECT_EQ(log.entries(), seen({droppingBridge(bridge), closed(bridge)}));
  EXPECT_THAT(hostSockets(), ElementsAre(slave.socket()));
}

TEST_P(PairingTest, LostAgentClosesTheBridge) {
  const Peer slave = server.connect();
  const Peer agent = agentConnects();
  const Peer bridge = server.connect();
  log.clear();
  EXPECT_NE(server.drop_socket(agent.socket()), 0);
  EXPECT_EQ(log.entries(),
            seen({dropped(agent), droppingAgent(agent), droppingBridge(bridge), closed(bridge)}));
  EXPECT_EQ(server.handlers_.size(), 1U);
  EXPECT_FALSE(slave.ended());
  EXPECT_TRUE(bridge.ended() && agent.ended());
  EXPECT_THAT(hostSockets(), ElementsAre(slave.socket()));
}

TEST_P(PairingTest, LostWaitingAgentLeavesItsHostBehind) {
  const Peer slave = server.connect();
  const Peer agent = agentConnects();
  log.clear();
  EXPECT_NE(server.drop_socket(agent.socket()), 0);
  EXPECT_EQ(log.entries(), seen({dropped(agent), droppingAgent(agent)}));
  EXPECT_EQ(server.agent_, nullptr);
  EXPECT_THAT(hostSockets(), ElementsAre(slave.socket(), -1));
  EXPECT_EQ(server.handlers_.size(), 1U);
}

TEST_P(PairingTest, NextAgentGetsANewBridge) {
  const Peer slave = server.connect();
  const Peer first = agentConnects();
  const Peer firstBridge = server.connect();
  (void)server.drop_socket(first.socket());
  const Peer second = agentConnects("<a/>");
  const Peer secondBridge = server.connect();
  EXPECT_EQ(secondBridge.received(), "<a/>\r\n");
  EXPECT_THAT(hostSockets(), ElementsAre(slave.socket(), secondBridge.socket()));
}

TEST_P(PairingTest, SocketWithoutAHandlerIsOnlyClosed) {
  const Peer slave = server.connect();
  const Peer agent = agentConnects();
  const Peer bridge = server.connect();
  const Peer stray = server.accept();
  log.clear();
  EXPECT_NE(server.drop_socket(stray.socket()), 0);
  EXPECT_EQ(log.entries(), seen({dropped(stray), droppingTelnet(stray)}));
  EXPECT_TRUE(stray.ended());
  EXPECT_FALSE(slave.ended() || agent.ended() || bridge.ended());
  EXPECT_EQ(server.handlers_.size(), 3U);
}

TEST_P(PairingTest, ByteCountClientIsDroppedWithItsHandlerAlone) {
  const Peer client = server.accept();
  server.read(client, kExists);
  log.clear();
  EXPECT_NE(server.drop_socket(client.socket()), 0);
  EXPECT_EQ(log.entries(), seen({dropped(client), droppingTelnet(client)}));
  EXPECT_FALSE(server.serves(client.socket()));
  EXPECT_THAT(FakeProxy::living(), IsEmpty());
}

TEST_P(PairingTest, UnknownInboundSocketIsReportedAndChangesNothing) {
  EXPECT_EQ(server.drop_socket(77), 0);
  EXPECT_EQ(log.entries(),
            seen({line(LOG_ERR, "*** error: cannot find inbound connection, socket 77"),
                  line(LOG_DEBUG, "drop_socket: dropping telnet (?) socket 77")}));
}

TEST_P(PairingTest, UnknownOutboundSocketClosesBridgeAndAgent) {
  const Peer slave = server.connect();
  const Peer agent = agentConnects();
  const Peer bridge = server.connect();
  EXPECT_NE(server.drop_host_connection(77), 0);
  EXPECT_TRUE(bridge.ended() && agent.ended());
  EXPECT_FALSE(slave.ended());
}

TEST_P(PairingTest, SurplusConnectionThatEndsIsNotFound) {
  const Peer slave = server.connect();
  const Peer agent = agentConnects();
  const Peer bridge = server.connect();
  server.add_host(kMaster, 5112);
  const Peer surplus = server.connect();
  EXPECT_NE(server.drop_host_connection(surplus.socket()), 0) << "bridge and agent went";
  EXPECT_TRUE(bridge.ended() && agent.ended());
  EXPECT_FALSE(surplus.ended());
  log.clear();
  EXPECT_EQ(server.drop_host_connection(surplus.socket()), 0) << "nothing left to drop";
  EXPECT_THAT(log.entries(), IsEmpty());
  EXPECT_FALSE(slave.ended() || surplus.ended());
}

TEST_P(PairingTest, SurplusConnectionIsClassifiedByWhatItSends) {
  const Peer slave = server.connect();
  const Peer agent = agentConnects();
  const Peer bridge = server.connect();
  server.add_host(kMaster, 5112);
  const Peer surplus = server.connect();
  server.read(surplus, kExists);
  EXPECT_EQ(surplus.received(), reply(""));
  EXPECT_EQ(server.handlerOf<ByteCountSlave>(slave), server.slave_);
}

// A second agent while the first is connected.
class ReplacedAgentTest : public PairingTest {
 protected:
  // The log lines of the arrival of @p second, without the one about its socket.
  static Lines replacing(const Peer& first, const Peer& second) {
    return {line(LOG_ERR, "handle_data_read: error orphaning agent_ (socket ", first.socket(),
                 "), socket ", second.socket()),
            line(LOG_INFO, "handle_data_read: creating agent socket handler, socket ",
                 second.socket())};
  }
};

INSTANTIATE_TEST_SUITE_P(Verbosity, ReplacedAgentTest, ::testing::Values(0, 1),
                         [](const auto& level) { return level.param == 0 ? "Quiet" : "Verbose"; });

TEST_P(ReplacedAgentTest, LosesItsHandlerAndKeepsItsSocketAndEntry) {
  const Peer first = agentConnects("<kept>");
  const Peer second = server.accept();
  log.clear();
  server.read(second, "<b>");
  Lines expected = replacing(first, second);
  expected.push_back(line(LOG_WARNING, "handleMessage: no peer_ link, buffering '<b>'"));
  EXPECT_EQ(log.entries(), expected);
  EXPECT_TRUE(server.serves(first.socket()));
  EXPECT_EQ(server.handlers_[first.socket()], nullptr);
  EXPECT_FALSE(first.ended());
  EXPECT_EQ(server.handlerOf<XmlSlave>(second), server.agent_);
  EXPECT_EQ(server.agent_->buffer().first(99), "<b>");
  EXPECT_EQ(FakeProxy::living().size(), 1U);
}

TEST_P(ReplacedAgentTest, CausesAnotherHostEntryWithoutABridge) {
  const Peer slave = server.connect();
  const Peer first = agentConnects();
  const Peer second = agentConnects("<b/>");
  EXPECT_THAT(hostSockets(), ElementsAre(slave.socket(), -1, -1));
  const Peer bridge = server.connect();
  EXPECT_EQ(bridge.received(), "<b/>\r\n");
  const Peer surplus = server.connect();
  EXPECT_FALSE(server.serves(surplus.socket()));
}

TEST_P(ReplacedAgentTest, PassesTheBridgeToTheNewAgent) {
  const Peer slave = server.connect();
  const Peer first = agentConnects();
  const Peer bridge = server.connect();
  const Peer second = agentConnects("<b/>");
  EXPECT_EQ(bridge.received(), "<b/>\r\n");
  server.read(bridge, "<c/>");
  EXPECT_EQ(second.received(), "<c/>\r\n");
  EXPECT_EQ(first.received(), "");
  EXPECT_THAT(hostSockets(), ElementsAre(slave.socket(), bridge.socket()));
}

TEST_P(ReplacedAgentTest, IsDroppedWhenItSendsBytes) {
  const Peer slave = server.connect();
  const Peer first = agentConnects();
  const Peer bridge = server.connect();
  const Peer second = agentConnects("<b/>");
  log.clear();
  server.read(first, "<more/>");
  EXPECT_EQ(log.entries(), seen({dropped(first), droppingTelnet(first)}));
  EXPECT_TRUE(first.ended());
  EXPECT_FALSE(server.serves(first.socket()));
  EXPECT_FALSE(slave.ended() || bridge.ended() || second.ended());
  server.read(bridge, "<c/>");
  EXPECT_EQ(second.received(), "<c/>\r\n");
}

TEST_P(ReplacedAgentTest, IsDroppedWhenItDisconnects) {
  const Peer slave = server.connect();
  const Peer first = agentConnects();
  const Peer bridge = server.connect();
  const Peer second = agentConnects();
  log.clear();
  EXPECT_NE(server.drop_socket(first.socket()), 0);
  EXPECT_EQ(log.entries(), seen({dropped(first), droppingTelnet(first)}));
  EXPECT_FALSE(server.serves(first.socket()));
  EXPECT_FALSE(bridge.ended() || second.ended());
}

TEST_P(ReplacedAgentTest, StaysWhenTheNewAgentDisconnects) {
  const Peer slave = server.connect();
  const Peer first = agentConnects();
  const Peer bridge = server.connect();
  const Peer second = agentConnects();
  EXPECT_NE(server.drop_socket(second.socket()), 0);
  EXPECT_TRUE(second.ended() && bridge.ended());
  EXPECT_FALSE(first.ended());
  EXPECT_TRUE(server.serves(first.socket()));
  server.read(first, "<more/>");
  EXPECT_TRUE(first.ended());
  EXPECT_EQ(server.agent_, nullptr);
}

TEST_P(ReplacedAgentTest, IsNotLinkedToALaterBridge) {
  const Peer slave = server.connect();
  const Peer first = agentConnects("<old/>");
  const Peer second = agentConnects("<new/>");
  const Peer bridge = server.connect();
  EXPECT_EQ(bridge.received(), "<new/>\r\n");
  server.read(first, "<old/>");
  EXPECT_EQ(bridge.received(), "");
  EXPECT_TRUE(first.ended());
}

TEST_P(ReplacedAgentTest, MayBeOneOfMany) {
  const Peer slave = server.connect();
  const Peer first = agentConnects();
  const Peer bridge = server.connect();
  const Peer second = agentConnects();
  const Peer third = agentConnects("<c/>");
  EXPECT_EQ(server.handlerOf<XmlSlave>(third), server.agent_);
  EXPECT_EQ(server.handlers_.size(), 5U);
  (void)server.drop_host_connection(slave.socket());
  EXPECT_TRUE(third.ended());
  EXPECT_FALSE(first.ended() || second.ended());
  server.read(second, "x");
  server.read(first, "x");
  EXPECT_TRUE(server.handlers_.empty());
}

TEST_P(ReplacedAgentTest, OnASurplusConnectionIsClosedWhenItSendsBytes) {
  const Peer slave = server.connect();
  const Peer first = agentConnects();
  const Peer bridge = server.connect();
  server.add_host(kMaster, 5112);
  const Peer surplus = server.connect();
  server.read(surplus, "<odd/>");
  EXPECT_EQ(log.count("(PID) getConnectionAddress: socket " + std::to_string(surplus.socket()) +
                      " is not in m_connections"),
            1);
  const Peer second = agentConnects();
  server.read(surplus, "<odd/>");
  EXPECT_TRUE(surplus.ended());
  EXPECT_FALSE(server.serves(surplus.socket()));
  EXPECT_FALSE(bridge.ended() || second.ended());
}

}  // namespace
}  // namespace zell::test
