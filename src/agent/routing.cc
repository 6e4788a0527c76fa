// SPDX-License-Identifier: Apache-2.0
// How the first bytes on a new socket select its handler, and how packets reach the handlers.
#include "agent/runel.h"

#include <algorithm>
#include <exception>
#include <iterator>
#include <typeinfo>

#include <syslog.h>

#include <zell/led_control.h>
#include <zell/stack_trace.h>
#include <zell/string_helpers.h>

#include "agent/busy.h"
#include "agent/settings.h"
#include "base/blank.h"
#include "base/log.h"
#include "connections/byte_count_slave.h"
#include "connections/xml_slave.h"
#include "protocol/protocol.h"

namespace zell {
namespace {

constexpr int kShownBytes = 60;
constexpr std::size_t kDumpChunk = 1024;

// The verbosity from which a packet is logged as one line, and in full.
constexpr int kShowPackets = 2;
constexpr int kDumpPackets = 3;

// A trace line on every pass of the loop would hide all other lines.
constexpr unsigned kTracedPasses = 100;

}  // namespace

void Runel::handle_incoming_connection(int socket) {
  if (verbose_ > 0) {
    logLine(LOG_DEBUG, "handle_incoming_connection: waiting for first input, socket %d", socket);
  }
}

void Runel::handle_data_read(int socket, char* buf, size_t len, int /*port*/) {
  if (handlers_.find(socket) == handlers_.end() && !classify(socket, buf, len)) {
    return;
  }
  std::string data(buf, len);
  logPacket(socket, data);
  try {
    serve(socket, data);
  } catch (const std::exception& error) {
    logLine(LOG_ERR, "handle_data_read: exception %s: %s",
            StackTrace::demangle(typeid(error).name()).c_str(), error.what());
  }
}

// Gives a new socket the handler that its first bytes select. False when there is no handler to
// call.
bool Runel::classify(int socket, const char* buf, std::size_t len) {
  if (len == 0 || buf == nullptr) {
    logLine(LOG_ERR, "handle_data_read: new socket but buffer is empty, socket %d", socket);
    return false;
  }
  const char* const first = std::find_if_not(buf, buf + len, isBlank);
  if (first == buf + len) {
    logLine(LOG_DEBUG, "handle_data_read: discarding first packet (all whitespace) socket %d",
            socket);
    return false;
  }
  if (*first == kClauseStart) {
    makeAgent(socket);
    return true;
  }
  if (*first == kFrameStart) {
    logLine(LOG_INFO, "handle_data_read: creating byte count client connection, socket %d", socket);
    handlers_[socket] = std::make_unique<ByteCountSlave>(socket);
    return true;
  }
  logLine(LOG_INFO, "handle_data_read: ignoring telnet connection, socket %d", socket);
  return false;
}

// The agent finds the master by its alias. From now on the alias names the address that the agent's
// connection came from.
void Runel::makeAgent(int socket) {
  if (agent_ != nullptr) {
    logLine(LOG_ERR, "handle_data_read: error orphaning agent_ (socket %d), socket %d",
            agent_->socket(), socket);
    orphanAgent();
  }
  logLine(LOG_INFO, "handle_data_read: creating agent socket handler, socket %d", socket);
  setEtcHosts(settings::kHostsFile, getConnectionAddress(socket));
  auto agent = std::make_unique<XmlSlave>(socket);
  XmlSlave* const made = agent.get();
  handlers_[socket] = std::move(agent);
  agent_ = made;
  if (bridge_ != nullptr) {
    linkRelays();
  } else {
    add_host(address_, settings::kMasterPort);
  }
}

void Runel::logPacket(int socket, const std::string& data) {
  if (verbose_ < kShowPackets) {
    return;
  }
  const int length = static_cast<int>(data.size());
  logLine(LOG_DEBUG, "handle_data_read: (%d) got %d '%s'", socket, length,
          trimOutput(data.substr(0, kShownBytes + 1), kShownBytes).c_str());
  if (verbose_ < kDumpPackets) {
    return;
  }
  logPlain(LOG_DEBUG, "received: %d bytes", length);
  for (std::size_t start = 0; start < data.size(); start += kDumpChunk) {
    // The range in the line is that of a whole chunk, even when the last chunk is shorter.
    logPlain(LOG_DEBUG, "bytes %d-%d: %s", static_cast<int>(start),
             static_cast<int>(start + kDumpChunk), data.substr(start, kDumpChunk).c_str());
  }
}

void Runel::serve(int socket, std::string& data) {
  const auto found = handlers_.find(socket);
  if (found == handlers_.end() || found->second == nullptr) {
    dropStale(socket);
    return;
  }
  RunelConnection& handler = *found->second;
  const Busy busy(*this);
  handler.handleMessage(data);
  if (handler.stopRequested()) {
    logLine(LOG_DEBUG, "handle_data_read: stopping server by request");
    s_run = false;
  }
}

// A replaced agent that sends again has no handler any more.
void Runel::dropStale(int socket) {
  if (m_connections.count(socket) != 0) {
    (void)drop_socket(socket);
  } else {
    (void)eraseHandler(socket);
  }
}

void Runel::handle_loop() {
  static unsigned passes = 0;
  const bool trace = verbose_ > 1 && ++passes % kTracedPasses == 0;
  if (trace) {
    logLine(LOG_DEBUG, "handle_loop: testing");
  }
  LedControl::instance().poll();
  auto next = handlers_.begin();
  while (next != handlers_.end()) {
    const int socket = next->first;
    const unsigned erased = erased_;
    if (next->second != nullptr) {
      workOnPending(*next->second, trace);
    }
    // Search only when the entry itself may be erased: with many connections, the search is most of
    // the cost of an idle one.
    next = erased == erased_ ? std::next(next) : handlers_.upper_bound(socket);
  }
}

// False for a handler that has been dropped. Its socket number may already belong to another
// connection.
bool Runel::isServing(const RunelConnection& handler) const {
  const auto found = handlers_.find(handler.socket());
  return found != handlers_.end() && found->second.get() == &handler;
}

void Runel::workOnPending(RunelConnection& handler, bool trace) {
  if (trace) {
    logLine(LOG_DEBUG, "handle_loop: examining socket %d, protocol %d", handler.socket(),
            handler.protocol());
  }
  const Busy busy(*this);
  if (handler.inputPending() && isServing(handler)) {
    if (verbose_ > 1) {
      logLine(LOG_DEBUG, "handle_loop: data pending, calling handleMessage");
    }
    std::string nothing;
    handler.handleMessage(nothing);
  }
  LedControl::instance().poll();
}

}  // namespace zell
