// SPDX-License-Identifier: Apache-2.0
#include "unit/agent/walk.h"

#include <algorithm>
#include <iostream>
#include <iterator>
#include <memory>
#include <stdexcept>
#include <utility>

#include "support/temp_dir.h"

namespace zell::test {
namespace {

using Kind = HandlerModel::Kind;

constexpr int kEvents = 60;
constexpr std::size_t kMostConnections = 8;
constexpr int kUnknownSocket = 900;

const std::string kHostId = request({"hostid"});

// Packets of any peer; a byte-count connection also gets parts of frames.
const std::vector<std::string>& packets() {
  static const std::vector<std::string> kAll = {
      "<a/>\r\n",
      "<b>",
      "x</b>",
      "<ping/>\r\n",
      "<c/><d>e</d>",
      " \r\n\t",
      "  <f/>",
      "hello\r\n",
      "<s>\x02</s>",
      "\x01x",
      std::string("\0<", 2),
      kHostId,
      kHostId + kHostId + kHostId,
      "\r\n" + kHostId,
      kHostId + "!",
      frame("junk") + kHostId,
      request({"restart"}) + kHostId,
  };
  return kAll;
}

// The model knows only these frames.
bool beginsFrame(const std::string& text) {
  const std::size_t first = text.find_first_not_of(" \t\r\n");
  return first != std::string::npos && text[first] == '\x01';
}

void dropFrom(TestRunel& server, int socket) {
  const auto isIt = [socket](const Host& host) { return host.socket == socket; };
  const bool outbound = std::any_of(server.m_hosts.begin(), server.m_hosts.end(), isIt);
  (void)(outbound ? server.drop_host_connection(socket) : server.drop_socket(socket));
}

// A handler that follows a script.
class Scripted : public RunelConnection {
 public:
  Scripted(int socket, TestRunel& server, Script script)
      : RunelConnection(socket, kPrompt), server_(server), script_(std::move(script)) {}

  bool inputPending() override {
    follow(script_.onPending);
    return script_.pending;
  }
  void handleMessage(std::string& /*packet*/) override { follow(script_.onMessage); }

 private:
  void follow(const std::vector<int>& sockets) {
    for (const int socket : sockets) {
      dropFrom(server_, socket);
    }
  }

  TestRunel& server_;
  Script script_;
};

}  // namespace

Walk::Walk(Choices& choices, int verbosity, LogCapture& log)
    : choices_(choices), log_(log), server_(kMaster, false, verbosity), model_(verbosity) {
  FakeDevice::instance().reset();
  FakeDevice::instance().onCall = [this](const std::string& call) { duringTask(call); };
  ServerBase::s_run = true;
}

Walk::~Walk() {
  FakeDevice::instance().onCall = nullptr;
  ServerBase::s_run = false;
}

bool Walk::run(Visits& visits) {
  for (int event = 0; event < kEvents && choices_.more(); ++event) {
    log_.clear();
    model_.log.clear();
    model_.sent.clear();
    model_.closed.clear();
    step();
    compare();
    note(visits);
    if (::testing::Test::HasFailure()) {
      std::cerr << events_;
      return false;
    }
  }
  return true;
}

int Walk::anySocket() {
  if (peers_.empty() || below(20) == 0) {
    return kUnknownSocket;
  }
  return std::next(peers_.begin(), static_cast<std::ptrdiff_t>(below(peers_.size())))->first;
}

std::vector<int> Walk::someSockets() {
  std::vector<int> sockets;
  for (std::size_t count = below(4); count > 0; --count) {
    sockets.push_back(anySocket());
  }
  return sockets;
}

void Walk::step() {
  switch (below(12)) {
    case 0:
    case 1:
      return accept();
    case 2:
      return connect();
    case 3:
      return end();
    case 4:
      return script();
    case 5:
      return armTask();
    case 6:
      return loop();
    default:
      return read();
  }
}

void Walk::accept() {
  if (model_.connections.size() >= kMostConnections) {
    return;
  }
  const std::string ip = "198.51.100." + std::to_string(below(256));
  Peer peer = server_.accept(ip);
  tell("accepted " + std::to_string(peer.socket()));
  model_.accepted(peer.socket(), ip);
  peers_.emplace(peer.socket(), std::move(peer));
}

// The master accepts some of the wanted connections.
void Walk::connect() {
  for (std::size_t count = 1 + below(3); count > 0; --count) {
    if (std::find(model_.hosts.begin(), model_.hosts.end(), -1) == model_.hosts.end()) {
      return;
    }
    Peer peer = server_.connect();
    tell("connected " + std::to_string(peer.socket()));
    model_.connected(peer.socket());
    peers_.emplace(peer.socket(), std::move(peer));
  }
}

void Walk::read() {
  const int socket = anySocket();
  if (socket == kUnknownSocket) {
    return;
  }
  const std::string packet = packetFor(socket);
  tell("read " + std::to_string(socket) + " " + ::testing::PrintToString(packet));
  server_.read(socket, packet);
  model_.read(socket, packet);
  EXPECT_EQ(ServerBase::s_run, model_.run);
  ServerBase::s_run = true;
  model_.run = true;
  if (!model_.alias.empty()) {
    EXPECT_THAT(contentOf("/etc/hosts"),
                ::testing::EndsWith("\n" + std::exchange(model_.alias, "") + " update-master\n"));
  }
}

bool Walk::isInFrame(int socket) const {
  const auto found = model_.handlers.find(socket);
  return found != model_.handlers.end() && found->second->kind == Kind::byteCount &&
         (found->second->frames.state == FrameModel::State::count ||
          found->second->frames.state == FrameModel::State::payload);
}

// A started frame continues correctly; between frames any bytes may follow.
std::string Walk::packetFor(int socket) {
  const auto found = model_.handlers.find(socket);
  const bool tasks = found != model_.handlers.end() && found->second->kind == Kind::byteCount;
  if (!isInFrame(socket) && (!tasks || below(2) == 0)) {
    const std::string text = tasks ? "" : choices_.text();
    const bool usable = !text.empty() && (found != model_.handlers.end() || !beginsFrame(text));
    return usable ? text : packets()[below(packets().size())];
  }
  if (!isInFrame(socket)) {
    rest_[socket] = kHostId;
  }
  std::string& rest = rest_[socket];
  const std::string part = rest.substr(0, 1 + below(rest.size()));
  rest.erase(0, part.size());
  return part;
}

void Walk::end() {
  const int socket = anySocket();
  tell("ended " + std::to_string(socket));
  if (model_.connections.count(socket) != 0 || below(2) == 0) {
    if (std::find(model_.hosts.begin(), model_.hosts.end(), socket) == model_.hosts.end()) {
      EXPECT_EQ(server_.drop_socket(socket) != 0, model_.dropSocket(socket));
      return;
    }
  }
  EXPECT_EQ(server_.drop_host_connection(socket) != 0, model_.dropHost(socket));
}

void Walk::loop() {
  tell("end of a pass");
  server_.handle_loop();
  model_.loop();
}

// Gives a socket without a handler a scripted one.
void Walk::script() {
  const int socket = anySocket();
  if (socket == kUnknownSocket || model_.handlers.count(socket) != 0) {
    return;
  }
  const Script script{someSockets(), below(3) == 0 ? someSockets() : std::vector<int>(),
                      below(2) == 0};
  tell("script " + std::to_string(socket) + " " + ::testing::PrintToString(script.onMessage) + " " +
       ::testing::PrintToString(script.onPending));
  server_.handlers_[socket] = std::make_unique<Scripted>(socket, server_, script);
  model_.serveWith(socket, script);
}

// Makes the next "hostid" drop sockets or throw. The end of a pass has no exception guard, so
// nothing throws while requests wait for it.
void Walk::armTask() {
  const bool waiting =
      std::any_of(model_.handlers.begin(), model_.handlers.end(),
                  [](const auto& entry) { return !entry.second->frames.messages.empty(); });
  taskThrows_ = model_.taskThrows = !waiting && below(2) == 0;
  taskDrops_ = model_.taskDrops = someSockets();
  tell(std::string("arm ") + (taskThrows_ ? "throw " : "") + ::testing::PrintToString(taskDrops_));
}

void Walk::duringTask(const std::string& call) {
  if (call != "hostId") {
    return;
  }
  if (std::exchange(taskThrows_, false)) {
    throw std::runtime_error("thrown by a task");
  }
  for (const int socket : std::exchange(taskDrops_, {})) {
    dropFrom(server_, socket);
  }
}

void Walk::compare() {
  EXPECT_EQ(log_.entries(), model_.log);
  compareRoles();
  compareHandlers();
  comparePeers();
}

void Walk::note(Visits& visits) const {
  const auto has = [this](Kind kind) {
    return std::any_of(model_.handlers.begin(), model_.handlers.end(),
                       [kind](const auto& entry) { return entry.second->kind == kind; });
  };
  const auto connected = model_.hosts.size() - static_cast<std::size_t>(std::count(
                                                   model_.hosts.begin(), model_.hosts.end(), -1));
  const bool linked = model_.agent != -1 && model_.bridge != -1;
  visits["slave"] += model_.slave != -1 ? 1 : 0;
  visits["agent waiting"] += model_.agent != -1 && model_.bridge == -1 ? 1 : 0;
  visits["bridged"] += linked ? 1 : 0;
  visits["bridge without agent"] += model_.bridge != -1 && model_.agent == -1 ? 1 : 0;
  visits["replaced"] += has(Kind::stale) ? 1 : 0;
  visits["replaced, bridged"] += has(Kind::stale) && linked ? 1 : 0;
  visits["surplus"] += connected > 2 ? 1 : 0;
  visits["agent on an outbound socket"] +=
      model_.agent != -1 && model_.connections.count(model_.agent) == 0 ? 1 : 0;
  visits["scripted"] += has(Kind::scripted) ? 1 : 0;
  visits["two closed at once"] += model_.closed.size() == 2 ? 1 : 0;
  visits["three and more closed at once"] += model_.closed.size() > 2 ? 1 : 0;
}

void Walk::compareRoles() {
  EXPECT_EQ(server_.slave_ == nullptr ? -1 : server_.slave_->socket(), model_.slave);
  EXPECT_EQ(server_.bridge_ == nullptr ? -1 : server_.bridge_->socket(), model_.bridge);
  EXPECT_EQ(server_.agent_ == nullptr ? -1 : server_.agent_->socket(), model_.agent);
  std::vector<int> hosts;
  for (const Host& host : server_.m_hosts) {
    hosts.push_back(host.socket);
  }
  EXPECT_EQ(hosts, model_.hosts);
  std::map<int, std::string> connections;
  for (const auto& [socket, connection] : server_.m_connections) {
    connections[socket] = connection.ip;
  }
  EXPECT_EQ(connections, model_.connections);
}

Kind Walk::kindOf(const RunelConnection* handler) {
  if (handler == nullptr) {
    return Kind::stale;
  }
  if (dynamic_cast<const XmlSlave*>(handler) != nullptr) {
    return Kind::xml;
  }
  return dynamic_cast<const ByteCountSlave*>(handler) != nullptr ? Kind::byteCount : Kind::scripted;
}

void Walk::compareHandlers() {
  std::size_t living = 0;
  std::map<int, Kind> kinds;
  std::map<int, Kind> wanted;
  for (const auto& [socket, handler] : server_.handlers_) {
    kinds[socket] = kindOf(handler.get());
    living += handler == nullptr ? 0 : 1;
  }
  for (const auto& [socket, handler] : model_.handlers) {
    wanted[socket] = handler->kind;
    if (handler->kind == Kind::xml && kinds[socket] == Kind::xml) {
      const auto& relay = static_cast<const XmlSlave&>(*server_.handlers_[socket]);
      EXPECT_EQ(relay.buffer().first(relay.buffer().size()), handler->relay.buffer);
    }
  }
  EXPECT_EQ(kinds, wanted);
  EXPECT_EQ(FakeProxy::living().size(), living) << "a handler outlived its entry";
}

void Walk::comparePeers() {
  for (auto peer = peers_.begin(); peer != peers_.end();) {
    const int socket = peer->first;
    const Peer::Seen seen = peer->second.look();
    EXPECT_EQ(seen.bytes, model_.sent[socket]) << "sent to " << socket;
    EXPECT_EQ(seen.ended, model_.closed.count(socket) != 0) << "end of " << socket;
    peer = seen.ended ? peers_.erase(peer) : std::next(peer);
  }
}

}  // namespace zell::test
