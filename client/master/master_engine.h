// SPDX-License-Identifier: Apache-2.0
// The master: admits connections, finds their roles and reports events.
#ifndef RUNEL_MASTER_MASTER_ENGINE_H_
#define RUNEL_MASTER_MASTER_ENGINE_H_

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include <netinet/in.h>

#include <runel/async_master.h>
#include <runel/events.h>
#include <runel/loop.h>

#include "base/unique_fd.h"
#include "client/master/call_queue.h"
#include "client/master/connection_roles.h"
#include "client/master/device_history.h"
#include "client/master/device_index.h"
#include "client/master/listener.h"
#include "client/master/master_connection.h"
#include "client/master/master_data.h"
#include "client/master/pace.h"
#include "client/master/proxied_socket.h"
#include "client/master/silent_socket.h"

namespace runel {
inline namespace v1 {

/// The work of AsyncMaster, whose declarations say more.
class MasterEngine : private MasterConnection::Observer {
 public:
  MasterEngine(Loop& loop, const MasterOptions& options, AsyncMaster::Handler handler);
  ~MasterEngine() override;
  MasterEngine(const MasterEngine&) = delete;
  MasterEngine& operator=(const MasterEngine&) = delete;

  [[nodiscard]] Result<void> open();
  [[nodiscard]] std::uint16_t port() const;
  [[nodiscard]] std::vector<std::uint16_t> ports() const;
  [[nodiscard]] std::size_t unidentified() const { return toIdentify_.size(); }
  [[nodiscard]] std::size_t silent() const { return silent_.size() + silenced_; }
  bool silence(const std::string& place);
  bool resume(const std::string& place);

  [[nodiscard]] std::vector<DeviceInfo> devices() const;
  /// The number of them.
  [[nodiscard]] std::size_t deviceCount() const { return ready_.size(); }
  [[nodiscard]] std::vector<DeviceInfo> find(const std::string& name) const;

  void ask(const std::string& name, const Request& request, ReplyHandler handler);
  [[nodiscard]] Result<std::unique_ptr<MasterUser>> attach(const std::string& name,
                                                           MasterUser::Handlers handlers);
  [[nodiscard]] Result<void> sendClause(const std::string& name, const std::string& clause);
  /// The number of bytes of clauses for the agent of @p name that are not sent yet. Without a value
  /// when no agent is connected.
  [[nodiscard]] std::optional<std::size_t> queuedClauses(const std::string& name) const;
  [[nodiscard]] Milliseconds timeout() const { return options_.timeout; }

 private:
  using Id = ConnectionRoles::Id;
  using Type = MasterEvent::Type;
  using Refusal = MasterEvent::Refusal;
  using Peer = MasterConnection::Peer;
  /// A refused connection that is held for as long as its peer does.
  struct SilentHost {
    std::unique_ptr<SilentSocket> socket;
    std::string host;
  };
  /// A refused connection: a socket, or a connection that must not be used.
  struct Held {
    zell::UniqueFd socket;
    Id id = 0;
    std::string host;
    Timer end;
  };
  /// The additional connections of one group.
  struct Additional {
    std::set<Id> all;
    std::set<Id> agents;  // those that have sent data
    std::set<Id> held;    // agents whose clauses wait for the identity of their device
    std::uint64_t clauses = 0;
  };

  /// The agents that a name selects.
  struct Agents {
    std::size_t count = 0;
    Bridge* one = nullptr;
  };

  void addListener();
  void accepted(zell::UniqueFd socket, const sockaddr_in& from);
  void arrivedByProxy(zell::UniqueFd socket, const sockaddr_in& proxy, const ProxyHeader& header);
  void arrived(zell::UniqueFd socket, const Peer& peer);
  [[nodiscard]] Refusal refusal(const Peer& peer) const;
  [[nodiscard]] bool isShared(std::uint32_t address) const;
  [[nodiscard]] static MasterEvent::Data refusedAt(const Peer& peer, Refusal refusal);
  void turnAway(zell::UniqueFd socket, const MasterEvent::Data& event);
  void holdSilently(zell::UniqueFd socket, const MasterEvent::Data& event);
  void hold(Held held);
  void letGo();
  void admit(zell::UniqueFd socket, const Peer& peer);
  void begin(Id id);
  [[nodiscard]] std::optional<Milliseconds> silenceFor(const MasterConnection& connection) const;
  void useLater(Id id);
  void identifyNext();
  void addFurther(Id id, MasterConnection& connection);
  void silence(Id id, MasterConnection& connection, const Error& error);
  [[nodiscard]] const MasterConnection* ownerAt(const std::string& group) const;
  void suspect(const std::string& group);
  void checkSuspects();
  void check(const std::string& group);

  void identified(Id id) override;
  void enter(MasterConnection& connection);
  void leave(const MasterConnection& connection);
  [[nodiscard]] std::string freeName(const MasterConnection& connection) const;
  void spoke(Id id) override;
  void announce(Id id);
  void release(const std::string& group);
  void clause(Id id, const std::string& text) override;
  void lost(Id id, const std::string& why) override;
  void forgetAdditional(Id id, const MasterConnection& connection);
  void arm();
  void promote();
  void endWaits();

  [[nodiscard]] MasterEvent::Data about(Type type, MasterConnection& connection) const;
  void tell(const MasterEvent::Data& event);
  [[nodiscard]] MasterConnection& at(Id id) const { return *connections_.at(id); }
  [[nodiscard]] Result<MasterConnection*> only(const std::string& name) const;
  [[nodiscard]] const std::set<Id>& agentsAt(const std::string& group) const;
  [[nodiscard]] Agents agents(const std::string& name) const;
  [[nodiscard]] std::set<Id> idsOf(const std::string& name) const;
  [[nodiscard]] DeviceInfo describe(const MasterConnection& connection) const;

  Loop& loop_;
  const MasterOptions::Data options_;
  // Shared, so that a handler that destroys the master lives until it returns.
  const std::shared_ptr<const AsyncMaster::Handler> handler_;
  CallQueue calls_;
  const MasterConnection::Context context_;
  ConnectionRoles roles_;
  Id last_ = 0;
  std::map<Id, std::unique_ptr<MasterConnection>> connections_;
  // Each request looks up names, so nothing searches through the connections. All of these are kept
  // when a connection is identified, changes its role or ends.
  struct ByHostid {
    using is_transparent = void;
    bool operator()(const MasterConnection* one, const MasterConnection* other) const;
    bool operator()(const MasterConnection* one, std::string_view hostid) const;
    bool operator()(std::string_view hostid, const MasterConnection* one) const;
  };
  struct ByAddress {
    using is_transparent = void;
    bool operator()(const MasterConnection* one, const MasterConnection* other) const;
    bool operator()(const MasterConnection* one, std::uint32_t address) const;
    bool operator()(std::uint32_t address, const MasterConnection* one) const;
  };
  // Identified devices that are not refused. Ordered, not hashed: devices choose their names and
  // could choose colliding ones.
  std::set<const MasterConnection*, ByAddress> ready_;
  std::set<const MasterConnection*, ByHostid> named_;       // those with a host identifier
  std::set<std::string> names_;                             // their unique names
  DeviceIndex agents_;                                      // agents by ADDRESS:PORT
  std::unordered_map<std::uint64_t, Id> places_;            // all by address and port
  std::unordered_map<std::string, Additional> additional_;  // by group
  std::set<std::string> suspects_;  // groups whose connections are checked next
  Timer checkSuspects_;
  DeviceHistory history_;
  std::deque<Held> held_;              // oldest first
  std::set<std::string> toldRefused_;  // reported addresses of held connections
  Timer due_;
  // Those whose identity is requested next, in the order of their connections.
  std::set<Id> toIdentify_;
  Pace pace_;
  Timer identify_;
  std::map<Id, std::unique_ptr<ProxiedSocket>> arriving_;
  std::map<Id, SilentHost> silent_;
  std::unordered_map<std::string, std::size_t> silentAt_;  // their number by address
  std::size_t silenced_ = 0;                               // connections that became silent
  std::vector<std::unique_ptr<Listener>> listeners_;
};

}  // namespace v1
}  // namespace runel

#endif  // RUNEL_MASTER_MASTER_ENGINE_H_
