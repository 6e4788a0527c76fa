// SPDX-License-Identifier: Apache-2.0
#include "unit/agent/walk_model.h"

#include <algorithm>
#include <cstdio>
#include <sstream>
#include <utility>

#include <syslog.h>

#include "support/task_wire.h"

namespace zell::test {
namespace {

using Kind = HandlerModel::Kind;

std::string shown(std::string text) {
  for (char& byte : text) {
    const auto value = static_cast<unsigned char>(byte);
    byte = value < 0x20 || value == 0x7f ? '.' : byte;
  }
  return text.size() > 60 ? text.substr(0, 57) + "..." : text;
}

bool isBlank(char byte) {
  return byte == ' ' || byte == '\t' || byte == '\r' || byte == '\n';
}

std::string byteText(char byte) {
  char text[16];
  std::snprintf(text, sizeof text, "byte 0x%02x",
                static_cast<unsigned>(static_cast<unsigned char>(byte)));
  return text;
}

}  // namespace

std::string FrameModel::accept(const std::string& bytes) {
  for (const char byte : bytes) {
    if (state == State::marker && byte == '\x01') {
      state = State::count;
      digits.clear();
      payload.clear();
    } else if (state == State::marker && !isBlank(byte)) {
      state = State::bad;
      return byteText(byte) + " where a frame must begin";
    } else if (state == State::count && byte == '\x02') {
      if (digits.empty()) {
        state = State::bad;
        return "an empty count";
      }
      state = State::payload;
    } else if (state == State::count && (byte < '0' || byte > '9')) {
      state = State::bad;
      return byteText(byte) + " in a count";
    } else if (state == State::count) {
      digits += byte;
    } else if (state == State::payload) {
      payload += byte;
    }
    if (state == State::payload && payload.size() == std::stoul(digits)) {
      messages.push_back(payload);
      state = State::marker;
    }
  }
  return "";
}

template <typename... Parts>
void WalkModel::note(int priority, const Parts&... parts) {
  std::ostringstream text;
  text << "(PID) ";
  (text << ... << parts);
  log.push_back({priority, text.str()});
}

template <typename... Parts>
void WalkModel::noteFrom(int verbosity, const Parts&... parts) {
  if (verbose >= verbosity) {
    note(LOG_DEBUG, parts...);
  }
}

void WalkModel::accepted(int socket, const std::string& ip) {
  connections[socket] = ip;
  noteFrom(1, "handle_incoming_connection: waiting for first input, socket ", socket);
}

void WalkModel::serveWith(int socket, const Script& script) {
  auto handler = std::make_shared<HandlerModel>();
  handler->kind = Kind::scripted;
  handler->script = script;
  handlers[socket] = handler;
}

void WalkModel::connected(int socket) {
  *std::find(hosts.begin(), hosts.end(), -1) = socket;
  if (slave == -1) {
    noteFrom(1, "handle_outgoing_connection: creating slave connection, socket ", socket);
    handlers[socket] = std::make_shared<HandlerModel>();
    handlers[socket]->kind = Kind::byteCount;
    slave = socket;
    return;
  }
  if (bridge != -1) {
    note(LOG_ERR, "handle_outgoing_connection: error, connections already set, socket ", socket);
    return;
  }
  noteFrom(1, "handle_outgoing_connection: creating agent bridge, socket ", socket);
  handlers[socket] = std::make_shared<HandlerModel>();
  handlers[socket]->kind = Kind::xml;
  bridge = socket;
  if (agent == -1) {
    note(LOG_ERR, "handle_outgoing_connection: null agent_");
    return;
  }
  link();
}

void WalkModel::read(int socket, const std::string& packet) {
  if (handlers.count(socket) == 0 && !classify(socket, packet)) {
    return;
  }
  noteFrom(2, "handle_data_read: (", socket, ") got ", packet.size(), " '", shown(packet), "'");
  try {
    serve(socket, packet);
  } catch (const Thrown&) {
    note(LOG_ERR, "handle_data_read: exception std::runtime_error: thrown by a task");
  }
}

bool WalkModel::classify(int socket, const std::string& packet) {
  const auto first = std::find_if_not(packet.begin(), packet.end(), isBlank);
  if (first == packet.end()) {
    note(LOG_DEBUG, "handle_data_read: discarding first packet (all whitespace) socket ", socket);
    return false;
  }
  if (*first == '<') {
    makeAgent(socket);
    return true;
  }
  if (*first == '\x01') {
    note(LOG_INFO, "handle_data_read: creating byte count client connection, socket ", socket);
    handlers[socket] = std::make_shared<HandlerModel>();
    handlers[socket]->kind = Kind::byteCount;
    return true;
  }
  note(LOG_INFO, "handle_data_read: ignoring telnet connection, socket ", socket);
  return false;
}

void WalkModel::makeAgent(int socket) {
  if (agent != -1) {
    note(LOG_ERR, "handle_data_read: error orphaning agent_ (socket ", agent, "), socket ", socket);
    unlink(bridge);
    handlers[agent] = std::make_shared<HandlerModel>();
  }
  note(LOG_INFO, "handle_data_read: creating agent socket handler, socket ", socket);
  if (connections.count(socket) == 0) {
    note(LOG_ERR, "getConnectionAddress: socket ", socket, " is not in m_connections");
  }
  alias = connections.count(socket) == 0 ? "127.0.0.1" : connections[socket];
  handlers[socket] = std::make_shared<HandlerModel>();
  handlers[socket]->kind = Kind::xml;
  agent = socket;
  if (bridge != -1) {
    link();
  } else {
    hosts.push_back(-1);
  }
}

void WalkModel::serve(int socket, const std::string& packet) {
  const std::shared_ptr<HandlerModel> handler = handlers.at(socket);
  if (handler->kind == Kind::stale) {
    (void)(connections.count(socket) != 0 ? dropSocket(socket) : eraseHandler(socket));
    return;
  }
  give(socket, *handler, packet);
  if (handler->relay.stop || handler->frames.stop) {
    note(LOG_DEBUG, "handle_data_read: stopping server by request");
    run = false;
  }
}

void WalkModel::give(int socket, HandlerModel& handler, const std::string& packet) {
  if (handler.kind == Kind::xml) {
    handler.relay.handleMessage(packet);
    settle(socket, handler);
  } else if (handler.kind == Kind::byteCount) {
    giveTask(socket, handler, packet);
  } else {
    for (const int other : std::vector<int>(handler.script.onMessage)) {
      drop(other);
    }
  }
}

void WalkModel::giveTask(int socket, HandlerModel& handler, const std::string& packet) {
  const std::string wrong = handler.frames.accept(packet);
  if (!wrong.empty()) {
    note(LOG_ERR, "acceptBytes: bad frame on socket ", socket, ", ", wrong);
  }
  if (handler.frames.messages.empty()) {
    note(LOG_DEBUG, "handleMessage: got packet, but it is not a complete message '", shown(packet),
         "'");
  }
  while (!handler.frames.messages.empty()) {
    const std::string message = handler.frames.messages.front();
    handler.frames.messages.pop_front();
    runTask(socket, handler, message);
  }
}

void WalkModel::runTask(int socket, HandlerModel& handler, const std::string& message) {
  if (message == requestRecord({"restart"})) {
    handler.frames.stop = true;
  } else if (message == requestRecord({"hostid"})) {
    if (taskThrows) {
      taskThrows = false;
      throw Thrown();
    }
    for (const int other : std::exchange(taskDrops, {})) {
      drop(other);
    }
    reply(socket, "0123abcd");
  } else {
    note(LOG_ERR, "handleMessage: unexpected task '", shown(message), "'");
  }
}

void WalkModel::reply(int socket, const std::string& text) {
  const bool open = connections.count(socket) != 0 ||
                    std::find(hosts.begin(), hosts.end(), socket) != hosts.end();
  if (open) {
    sent[socket] += test::reply(text);
  } else {
    note(LOG_ERR, "sendMessage: socket ", socket, ", Bad file descriptor");
  }
}

// The log lines of a relay, and the bytes that it sent to the other one.
void WalkModel::settle(int socket, HandlerModel& handler) {
  log.insert(log.end(), handler.relay.log.begin(), handler.relay.log.end());
  handler.relay.log.clear();
  if (!handler.relay.sent.empty()) {
    sent[socket == agent ? bridge : agent] += handler.relay.sent;
    handler.relay.sent.clear();
  }
}

void WalkModel::link() {
  relayOf(bridge).setPeer(true);
  settle(bridge, *handlers.at(bridge));
  relayOf(agent).setPeer(true);
  settle(agent, *handlers.at(agent));
}

void WalkModel::unlink(int socket) {
  if (socket != -1) {
    relayOf(socket).setPeer(false);
  }
}

void WalkModel::drop(int socket) {
  const bool outbound = std::find(hosts.begin(), hosts.end(), socket) != hosts.end();
  (void)(outbound ? dropHost(socket) : dropSocket(socket));
}

bool WalkModel::baseDropSocket(int socket) {
  if (connections.erase(socket) != 0) {
    note(LOG_INFO, "dropping connection: ", socket);
    closed.insert(socket);
    return true;
  }
  note(LOG_ERR, "*** error: cannot find inbound connection, socket ", socket);
  for (const auto& [other, ip] : connections) {
    note(LOG_INFO, "connection port = 5111, udp = 0, read = 1, incoming = 3, handle = ", other,
         ", ip = ", ip);
  }
  return false;
}

bool WalkModel::baseDropHost(int socket) {
  const auto found = std::find(hosts.begin(), hosts.end(), socket);
  if (found != hosts.end()) {
    note(LOG_INFO, "closing connection ", kMaster, ", socket ", socket);
    closed.insert(socket);
    *found = -1;
    return true;
  }
  note(LOG_ERR, "*** error: cannot find host connection, socket ", socket);
  for (const int other : hosts) {
    note(LOG_INFO, "host name = ", kMaster, ", port = 5112, socket = ", other);
  }
  return false;
}

bool WalkModel::eraseHandler(int socket) {
  const bool result = baseDropHost(socket);
  handlers.erase(socket);
  return result;
}

bool WalkModel::dropHost(int socket) {
  bool result = false;
  if (slave != -1 && slave == socket) {
    noteFrom(1, "drop_host_connection: dropping slave connection, socket ", socket);
    result = eraseHandler(socket);
    slave = -1;
  }
  if (bridge != -1) {
    noteFrom(1, "drop_host_connection: dropping agent bridge, socket ", bridge);
    unlink(agent);
    const int gone = bridge;
    bridge = -1;
    result |= eraseHandler(gone);
    const auto unconnected = std::find(hosts.begin(), hosts.end(), -1);
    if (unconnected != hosts.end()) {
      hosts.erase(unconnected);
    }
  }
  if (agent != -1) {
    result |= dropSocket(agent);
  }
  return result;
}

bool WalkModel::dropSocket(int socket) {
  bool result = baseDropSocket(socket);
  if (agent != -1 && agent == socket) {
    noteFrom(1, "drop_socket: dropping update manager agent socket ", socket);
    unlink(bridge);
    agent = -1;
    if (bridge != -1) {
      result |= dropHost(bridge);
    }
  } else {
    noteFrom(1, "drop_socket: dropping telnet (?) socket ", socket);
  }
  handlers.erase(socket);
  return result;
}

void WalkModel::loop() {
  static unsigned passes = 0;  // shared by all servers, as in the server
  const bool trace = verbose > 1 && ++passes % 100 == 0;
  if (trace) {
    note(LOG_DEBUG, "handle_loop: testing");
  }
  int last = -1;
  for (auto next = handlers.begin(); next != handlers.end(); next = handlers.upper_bound(last)) {
    last = next->first;
    workOn(last, trace);
  }
}

void WalkModel::workOn(int socket, bool trace) {
  static const std::map<Kind, int> kProtocols = {
      {Kind::scripted, 1}, {Kind::byteCount, 2}, {Kind::xml, 3}};
  const std::shared_ptr<HandlerModel> handler = handlers.at(socket);
  if (handler->kind == Kind::stale) {
    return;
  }
  if (trace) {
    note(LOG_DEBUG, "handle_loop: examining socket ", socket, ", protocol ",
         kProtocols.at(handler->kind));
  }
  bool pending = !handler->frames.messages.empty() || handler->relay.inputPending();
  if (handler->kind == Kind::scripted) {
    for (const int other : handler->script.onPending) {
      drop(other);
    }
    pending = handler->script.pending && handlers.count(socket) != 0;
  }
  if (pending) {
    noteFrom(2, "handle_loop: data pending, calling handleMessage");
    give(socket, *handler, "");
  }
}

}  // namespace zell::test
