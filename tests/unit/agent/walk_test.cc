// SPDX-License-Identifier: Apache-2.0
// Random sequences of events on an agent server. After each event it is compared with the model of
// its tables: which handlers serve which sockets, the roles, the hosts, who was sent what, who was
// closed, what was logged.
//
//   RUNELD_WALKS=100000   so many sequences instead of 2,000
//   RUNELD_WALK=17        only the sequence with this seed
#include <algorithm>
#include <cstdlib>
#include <iostream>
#include <map>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "support/temp_dir.h"
#include "unit/agent/agent_case.h"
#include "unit/agent/walk_model.h"

namespace zell::test {
namespace {

using Kind = HandlerModel::Kind;

constexpr char kMaster[] = "192.0.2.1";
constexpr int kEvents = 60;
constexpr std::size_t kMostConnections = 8;
constexpr int kUnknownSocket = 900;

const std::string kHostId = request({"hostid"});

// What anybody may send; a byte-count connection gets parts of frames besides.
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

// How many events each of the rarer constellations was there for: a walk that never gets into them
// would hold nothing.
using Visits = std::map<std::string, long>;

class Walk {
 public:
  Walk(unsigned seed, LogCapture& log)
      : log_(log),
        random_(seed),
        server_(kMaster, false, static_cast<int>(seed % 3)),
        model_(static_cast<int>(seed % 3)) {
    FakeDevice::instance().reset();
    FakeDevice::instance().onCall = [this](const std::string& call) { duringTask(call); };
    ServerBase::s_run = true;
  }
  ~Walk() {
    FakeDevice::instance().onCall = nullptr;
    ServerBase::s_run = false;
  }
  Walk(const Walk&) = delete;
  Walk& operator=(const Walk&) = delete;

  // Goes on to the end, or to the first difference; false then.
  bool run(Visits& visits) {
    for (int event = 0; event < kEvents; ++event) {
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

 private:
  std::size_t below(std::size_t limit) { return random_() % limit; }
  void tell(const std::string& event) { events_ += event + "\n"; }

  int anySocket() {
    if (peers_.empty() || below(20) == 0) {
      return kUnknownSocket;
    }
    return std::next(peers_.begin(), static_cast<std::ptrdiff_t>(below(peers_.size())))->first;
  }

  std::vector<int> someSockets() {
    std::vector<int> sockets;
    for (std::size_t count = below(4); count > 0; --count) {
      sockets.push_back(anySocket());
    }
    return sockets;
  }

  void step() {
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

  void accept() {
    if (model_.connections.size() >= kMostConnections) {
      return;
    }
    const std::string ip = "198.51.100." + std::to_string(below(256));
    Peer peer = server_.accept(ip);
    tell("accepted " + std::to_string(peer.socket()));
    model_.accepted(peer.socket(), ip);
    peers_.emplace(peer.socket(), std::move(peer));
  }

  // The master takes some of the connections that are wanted.
  void connect() {
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

  void read() {
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

  [[nodiscard]] bool isInFrame(int socket) const {
    const auto found = model_.handlers.find(socket);
    return found != model_.handlers.end() && found->second->kind == Kind::byteCount &&
           (found->second->frames.state == FrameModel::State::count ||
            found->second->frames.state == FrameModel::State::payload);
  }

  // A frame that has begun goes on as it must; what comes between frames may be anything.
  std::string packetFor(int socket) {
    const auto found = model_.handlers.find(socket);
    const bool tasks = found != model_.handlers.end() && found->second->kind == Kind::byteCount;
    if (!isInFrame(socket) && (!tasks || below(2) == 0)) {
      return packets()[below(packets().size())];
    }
    if (!isInFrame(socket)) {
      rest_[socket] = kHostId;
    }
    std::string& rest = rest_[socket];
    const std::string part = rest.substr(0, 1 + below(rest.size()));
    rest.erase(0, part.size());
    return part;
  }

  void end() {
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

  void loop() {
    tell("end of a pass");
    server_.handle_loop();
    model_.loop();
  }

  // Gives a socket that has no handler one of the test's own.
  void script() {
    const int socket = anySocket();
    if (socket == kUnknownSocket || model_.handlers.count(socket) != 0) {
      return;
    }
    const Script script{someSockets(), below(3) == 0 ? someSockets() : std::vector<int>(),
                        below(2) == 0};
    tell("script " + std::to_string(socket) + " " + ::testing::PrintToString(script.onMessage) +
         " " + ::testing::PrintToString(script.onPending));
    server_.handlers_[socket] = std::make_unique<Scripted>(socket, server_, script);
    model_.serveWith(socket, script);
  }

  // Has the next "hostid" drop sockets, or throw. The end of a pass has no guard, so nothing throws
  // while requests wait for it.
  void armTask() {
    const bool waiting =
        std::any_of(model_.handlers.begin(), model_.handlers.end(),
                    [](const auto& entry) { return !entry.second->frames.messages.empty(); });
    taskThrows_ = model_.taskThrows = !waiting && below(2) == 0;
    taskDrops_ = model_.taskDrops = someSockets();
    tell(std::string("arm ") + (taskThrows_ ? "throw " : "") +
         ::testing::PrintToString(taskDrops_));
  }

  void duringTask(const std::string& call) {
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

  void compare() {
    EXPECT_EQ(log_.entries(), model_.log);
    compareRoles();
    compareHandlers();
    comparePeers();
  }

  void note(Visits& visits) const {
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

  void compareRoles() {
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

  static Kind kindOf(const RunelConnection* handler) {
    if (handler == nullptr) {
      return Kind::stale;
    }
    if (dynamic_cast<const XmlSlave*>(handler) != nullptr) {
      return Kind::xml;
    }
    return dynamic_cast<const ByteCountSlave*>(handler) != nullptr ? Kind::byteCount
                                                                   : Kind::scripted;
  }

  void compareHandlers() {
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

  void comparePeers() {
    for (auto peer = peers_.begin(); peer != peers_.end();) {
      const int socket = peer->first;
      const Peer::Seen seen = peer->second.look();
      EXPECT_EQ(seen.bytes, model_.sent[socket]) << "sent to " << socket;
      EXPECT_EQ(seen.ended, model_.closed.count(socket) != 0) << "end of " << socket;
      peer = seen.ended ? peers_.erase(peer) : std::next(peer);
    }
  }

  LogCapture& log_;
  std::mt19937 random_;
  TestRunel server_;
  WalkModel model_;
  std::map<int, Peer> peers_;        // by the server's socket
  std::map<int, std::string> rest_;  // of a frame that has begun, by socket
  std::vector<int> taskDrops_;
  bool taskThrows_ = false;
  std::string events_;
};

long fromEnvironment(const char* name, long otherwise) {
  const char* const text = std::getenv(name);
  return text == nullptr ? otherwise : std::atol(text);
}

class WalkTest : public AgentCase {};

TEST_F(WalkTest, ServerFollowsTheModel) {
  const long only = fromEnvironment("RUNELD_WALK", -1);
  const long first = only < 0 ? 0 : only;
  const long end = only < 0 ? fromEnvironment("RUNELD_WALKS", 2000) : only + 1;
  ASSERT_LT(first, end);
  Visits visits;
  for (long seed = first; seed < end; ++seed) {
    ASSERT_TRUE(Walk(static_cast<unsigned>(seed), log).run(visits)) << "seed " << seed;
    ASSERT_TRUE(FakeProxy::living().empty()) << "seed " << seed;
  }
  for (const auto& [constellation, events] : visits) {
    std::cout << "  " << constellation << ": " << events << " events\n";
    EXPECT_TRUE(events > 0 || only >= 0) << constellation;
  }
}

}  // namespace
}  // namespace zell::test
