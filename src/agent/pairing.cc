// SPDX-License-Identifier: Apache-2.0
// The two connections to the master, the agent, and how they are opened and dropped together.
#include "agent/runel.h"

#include <syslog.h>

#include "agent/busy.h"
#include "agent/settings.h"
#include "base/log.h"
#include "connections/byte_count_slave.h"
#include "connections/xml_slave.h"

namespace zell {

void Runel::handle_outgoing_connection(int socket) {
  if (slave_ == nullptr) {
    if (verbose_ > 0) {
      logLine(LOG_DEBUG, "handle_outgoing_connection: creating slave connection, socket %d",
              socket);
    }
    auto slave = std::make_unique<ByteCountSlave>(socket);
    ByteCountSlave* const made = slave.get();
    handlers_[socket] = std::move(slave);
    slave_ = made;
    return;
  }
  if (bridge_ != nullptr) {
    logLine(LOG_ERR, "handle_outgoing_connection: error, connections already set, socket %d",
            socket);
    return;
  }
  if (verbose_ > 0) {
    logLine(LOG_DEBUG, "handle_outgoing_connection: creating agent bridge, socket %d", socket);
  }
  auto bridge = std::make_unique<XmlSlave>(socket);
  XmlSlave* const made = bridge.get();
  handlers_[socket] = std::move(bridge);
  bridge_ = made;
  if (agent_ == nullptr) {
    logLine(LOG_ERR, "handle_outgoing_connection: null agent_");
    return;
  }
  linkRelays();
}

// Losing either connection to the master also drops the bridge and the agent: the agent starts a
// new dialogue after it reconnects. This function and drop_socket call each other. Each clears its
// role first, which ends the recursion.
int Runel::drop_host_connection(int socket) {
  int result = 0;
  if (slave_ != nullptr && slave_->socket() == socket) {
    if (verbose_ > 0) {
      logLine(LOG_DEBUG, "drop_host_connection: dropping slave connection, socket %d", socket);
    }
    slave_ = nullptr;
    result = eraseHandler(socket);
  }
  if (bridge_ != nullptr) {
    const int bridge = bridge_->socket();
    if (verbose_ > 0) {
      logLine(LOG_DEBUG, "drop_host_connection: dropping agent bridge, socket %d", bridge);
    }
    unlinkRelays();
    bridge_ = nullptr;
    result |= eraseHandler(bridge);
    remove_host(address_, settings::kMasterPort);  // only the slave connection is made again
  }
  if (agent_ != nullptr) {
    result |= drop_socket(agent_->socket());
  }
  return result;
}

int Runel::drop_socket(int socket) {
  int result = ServerBase::drop_socket(socket);
  if (agent_ != nullptr && agent_->socket() == socket) {
    if (verbose_ > 0) {
      logLine(LOG_DEBUG, "drop_socket: dropping update manager agent socket %d", socket);
    }
    unlinkRelays();
    agent_ = nullptr;
    if (bridge_ != nullptr) {
      result |= drop_host_connection(bridge_->socket());
    }
  } else if (verbose_ > 0) {
    logLine(LOG_DEBUG, "drop_socket: dropping telnet (?) socket %d", socket);
  }
  forgetHandler(socket);
  return result;
}

const std::string& Runel::getConnectionAddress(int socket) {
  static const std::string kOwnAddress = "127.0.0.1";
  const auto found = m_connections.find(socket);
  if (found == m_connections.end()) {
    logLine(LOG_ERR, "getConnectionAddress: socket %d is not in m_connections", socket);
    return kOwnAddress;
  }
  return found->second.ip;
}

int Runel::eraseHandler(int socket) {
  const int result = ServerBase::drop_host_connection(socket);
  forgetHandler(socket);
  return result;
}

void Runel::forgetHandler(int socket) {
  const auto found = handlers_.find(socket);
  if (found != handlers_.end()) {
    retire(std::move(found->second));
    handlers_.erase(found);
    ++erased_;
  }
}

// Retires a handler. A handler that may be in a call lives until the call returns.
void Runel::retire(std::unique_ptr<RunelConnection> handler) {
  if (busy_ > 0) {
    retired_.push_back(std::move(handler));
  }
}

// Replaces the current agent. The old agent's socket stays open and its table entry stays without a
// handler. The connection is dropped at its next packet or at its end.
void Runel::orphanAgent() {
  const int socket = agent_->socket();
  unlinkRelays();
  agent_ = nullptr;
  retire(std::move(handlers_[socket]));
}

// Each setPeer call relays the input that was received before the link existed.
void Runel::linkRelays() {
  const Busy busy(*this);
  bridge_->setPeer(agent_);
  agent_->setPeer(bridge_);
}

// Neither relay may keep a pointer to a peer that is about to be deleted.
void Runel::unlinkRelays() {
  if (bridge_ != nullptr) {
    bridge_->setPeer(nullptr);
  }
  if (agent_ != nullptr) {
    agent_->setPeer(nullptr);
  }
}

}  // namespace zell
