// SPDX-License-Identifier: Apache-2.0
// Both ends of a relay on separate sockets, not linked yet.
#ifndef TESTS_UNIT_CONNECTIONS_RELAY_FIXTURE_H_
#define TESTS_UNIT_CONNECTIONS_RELAY_FIXTURE_H_

#include <csignal>
#include <string>

#include <gtest/gtest.h>

#include "connections/xml_slave.h"
#include "fakes/system/fake_system.h"
#include "support/log_capture.h"
#include "support/socket_pair.h"

namespace zell::test {

class RelayFixture : public testing::Test {
 protected:
  RelayFixture() {
    FakeSystem::instance().reset();
    (void)std::signal(SIGPIPE, SIG_IGN);  // as in the daemon
  }

  /// Links the ends like the server.
  void link() {
    bridge.setPeer(&agent);
    agent.setPeer(&bridge);
    log.clear();
  }

  /// Passes @p packet to @p relay, as read from its socket; an empty packet drives it.
  static void give(XmlSlave& relay, std::string packet) { relay.handleMessage(packet); }

  static std::string contentsOf(const XmlSlave& relay) {
    return relay.buffer().first(relay.buffer().size());
  }

  SocketPair agentSockets = SocketPair::local();
  SocketPair masterSockets = SocketPair::local();
  LogCapture log;
  XmlSlave agent{agentSockets.near()};
  XmlSlave bridge{masterSockets.near()};
};

}  // namespace zell::test

#endif  // TESTS_UNIT_CONNECTIONS_RELAY_FIXTURE_H_
