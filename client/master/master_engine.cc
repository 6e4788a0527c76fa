// SPDX-License-Identifier: Apache-2.0
#include "client/master/master_engine.h"

#include <algorithm>
#include <chrono>
#include <optional>
#include <utility>

#include <arpa/inet.h>

#include "client/master/clause.h"

namespace runel {
inline namespace v1 {
namespace {

// A refused device would reconnect immediately, ten times a second. So its connection is held open.
constexpr Milliseconds kHoldTime{5000};
constexpr std::size_t kMostHeld = 256;
// A device has a slave connection, a bridge and sometimes a surplus connection.
constexpr std::size_t kMostOfOneDevice = 16;
constexpr std::size_t kMostOfOneAddress = 4096;
// An agent that does not read makes the daemon stop reading its bridge.
constexpr std::size_t kMostClausesQueued = 8388608;

std::string dotted(const sockaddr_in& from) {
  char text[INET_ADDRSTRLEN] = "";
  (void)inet_ntop(AF_INET, &from.sin_addr, text, sizeof text);  // the buffer fits every address
  return text;
}

ConnectionRoles::Rules rulesOf(std::optional<Milliseconds> shared) {
  ConnectionRoles::Rules rules;
  rules.shared = shared;
  return rules;
}

const char* reasonOf(MasterEvent::Refusal refusal) {
  switch (refusal) {
    case MasterEvent::Refusal::address:
      return "address not allowed";
    case MasterEvent::Refusal::hostid:
      return "host identifier not allowed";
    case MasterEvent::Refusal::tooManyConnections:
      return "too many connections from this address";
    default:
      return "";
  }
}

Error ambiguous(std::size_t count, const char* what, const std::string& name) {
  return {Kind::link, Cause::refusedByMaster,
          std::to_string(count) + " " + what + " " + name + ": select one by ADDRESS:PORT"};
}

}  // namespace

MasterEngine::MasterEngine(Loop& loop, const MasterOptions& options, AsyncMaster::Handler handler)
    : loop_(loop),
      options_(*options.data_),
      handler_(std::make_shared<const AsyncMaster::Handler>(std::move(handler))),
      calls_(loop),
      roles_(rulesOf(options_.shared)),
      listener_(
          loop,
          [this](zell::UniqueFd socket, const sockaddr_in& from) {
            accepted(std::move(socket), from);
          },
          [this](const std::string& text) {
            MasterEvent::Data event;
            event.text = text;
            tell(event);
          }) {}

MasterEngine::~MasterEngine() {
  loop_.cancel(due_);
  for (Held& held : held_) {
    loop_.cancel(held.end);
  }
}

Result<void> MasterEngine::open() {
  return listener_.open(options_.host, options_.port);
}

// Admission.

void MasterEngine::accepted(zell::UniqueFd socket, const sockaddr_in& from) {
  MasterEvent::Data event;
  event.type = Type::refused;
  event.host = dotted(from);
  event.port = ntohs(from.sin_port);
  event.refusal = refusal(from, event.host);
  if (event.refusal == Refusal::none) {
    admit(std::move(socket), event.host, event.port);
  } else {
    turnAway(std::move(socket), event);
  }
}

MasterEngine::Refusal MasterEngine::refusal(const sockaddr_in& from,
                                            const std::string& host) const {
  if (!options_.access.allowsAddress(ntohl(from.sin_addr.s_addr))) {
    return Refusal::address;
  }
  const std::size_t most = options_.shared ? kMostOfOneAddress : kMostOfOneDevice;
  return roles_.countAt(host) >= most ? Refusal::tooManyConnections : Refusal::none;
}

void MasterEngine::turnAway(zell::UniqueFd socket, const MasterEvent::Data& event) {
  if (held_.size() >= kMostHeld) {
    return;
  }
  if (toldRefused_.insert(event.host).second) {
    tell(event);
  }
  hold({std::move(socket), 0, event.host, {}});
}

void MasterEngine::hold(Held held) {
  held.end = loop_.after(kHoldTime, [this] { letGo(); });
  held_.push_back(std::move(held));
}

// All are held for the same time, so the oldest one has expired.
void MasterEngine::letGo() {
  const Held held = std::move(held_.front());
  held_.pop_front();
  toldRefused_.erase(held.host);
  if (connections_.count(held.id) != 0) {
    lost(held.id, "refused");
  }
}

void MasterEngine::admit(zell::UniqueFd socket, const std::string& host, std::uint16_t port) {
  const Id id = ++last_;
  const MasterConnection::Events events{[this, id] { identified(id); }, [this, id] { spoke(id); },
                                        [this, id](const std::string& text) { clause(id, text); },
                                        [this, id](const std::string& why) { lost(id, why); }};
  const MasterConnection* const owner = ownerAt(host);
  auto& connection =
      *(connections_[id] = std::make_unique<MasterConnection>(
            MasterConnection::Context{loop_, calls_, options_.timeout}, host, port, events));
  if (roles_.opened(id, host, Clock::now()) == ConnectionRoles::Role::slave) {
    connection.useAsSlave(std::move(socket));
  } else {
    connection.useAsBridge(std::move(socket), owner);
    tell(about(Type::additional, connection));
    checkSlaves(host);
  }
  arm();
}

// The device of the additional connections from an address, if only one device is there.
const MasterConnection* MasterEngine::ownerAt(const std::string& host) const {
  const std::vector<Id> slaves = roles_.slavesAt(host);
  return slaves.size() == 1 ? connections_.at(slaves.front()).get() : nullptr;
}

// A device opens an additional connection for an agent, or because it has lost the first one. A
// check detects the second case.
void MasterEngine::checkSlaves(const std::string& host) {
  for (const Id slave : roles_.slavesAt(host)) {
    connections_.at(slave)->check();
  }
}

// Events of connections.

void MasterEngine::identified(Id id) {
  MasterConnection& connection = *connections_.at(id);
  if (options_.access.allowsHostid(connection.hostid())) {
    connection.setName(freeName(connection));
    history_.connected(connection.key(), connection.since());
    tell(about(Type::connected, connection));
    return;
  }
  MasterEvent::Data event = about(Type::refused, connection);
  event.refusal = Refusal::hostid;
  tell(event);
  connection.refuse();
  hold({zell::UniqueFd(), id, connection.host(), {}});
}

std::string MasterEngine::freeName(const MasterConnection& connection) const {
  for (const std::string& name : {connection.hostid(), connection.host()}) {
    const bool taken = std::any_of(
        connections_.begin(), connections_.end(),
        [&](const auto& entry) { return entry.second->isSlave() && entry.second->name() == name; });
    if (!name.empty() && !taken) {
      return name;
    }
  }
  return connection.place();
}

void MasterEngine::spoke(Id id) {
  roles_.spoke(id);
  tell(about(Type::agentConnected, *connections_.at(id)));
  arm();
}

void MasterEngine::clause(Id id, const std::string& text) {
  MasterEvent::Data event = about(Type::clause, *connections_.at(id));
  event.text = text;
  tell(event);
}

void MasterEngine::lost(Id id, const std::string& why) {
  const auto found = connections_.find(id);
  const std::shared_ptr<MasterConnection> gone = std::move(found->second);
  MasterEvent::Data event = about(gone->isSlave() ? Type::lost : Type::additionalLost, *gone);
  event.text = why;
  event.fromAgent = gone->isAgent();
  connections_.erase(found);
  roles_.closed(id, Clock::now());
  if (gone->isSlave() && gone->ready()) {
    history_.lost(gone->key(), wallClockNow(), why, gone->counters());
  }
  tell(event);
  calls_.add([gone] { (void)gone; });  // the connection is still on the stack
  arm();
}

void MasterEngine::arm() {
  loop_.cancel(due_);
  const std::optional<ConnectionRoles::Time> next = roles_.nextDue();
  if (next) {
    const auto left = std::chrono::ceil<Milliseconds>(*next - Clock::now());
    due_ = loop_.after(std::max(left, Milliseconds(0)), [this] { promote(); });
  }
}

void MasterEngine::promote() {
  due_ = Timer();
  for (const Id id : roles_.due(Clock::now())) {
    connections_.at(id)->promote();
  }
  arm();
}

// The device of a bridge may tell its identity only after the bridge was opened.
MasterEvent::Data MasterEngine::about(Type type, MasterConnection& connection) const {
  if (connection.name().empty() && !connection.isSlave()) {
    const MasterConnection* const owner = ownerAt(connection.host());
    connection.setName(owner != nullptr ? owner->name() : "");
  }
  MasterEvent::Data event;
  event.type = type;
  event.device = connection.name();
  event.hostid = connection.hostid();
  event.deviceType = connection.deviceType();
  event.host = connection.host();
  event.port = connection.port();
  return event;
}

void MasterEngine::tell(const MasterEvent::Data& event) {
  auto data = std::make_shared<MasterEvent::Data>(event);
  if (event.type == Type::refused) {
    data->text = reasonOf(event.refusal);
  }
  if (*handler_) {
    calls_.add([handler = handler_, event = MasterEvent(std::move(data))] { (*handler)(event); });
  }
}

// Devices by name.

std::vector<MasterConnection*> MasterEngine::named(const std::string& name) const {
  std::vector<MasterConnection*> found;
  for (const auto& [id, connection] : connections_) {
    if (connection->isSlave() && connection->ready() &&
        (name == connection->hostid() || name == connection->host() ||
         name == connection->place())) {
      found.push_back(connection.get());
    }
  }
  return found;
}

Result<MasterConnection*> MasterEngine::only(const std::string& name) const {
  const std::vector<MasterConnection*> found = named(name);
  if (found.empty()) {
    return Error(Kind::link, Cause::refusedByMaster,
                 "no device " + name + " is connected to the master");
  }
  if (found.size() > 1) {
    return ambiguous(found.size(), "devices are named", name);
  }
  return found.front();
}

void MasterEngine::ask(const std::string& name, const Request& request, ReplyHandler handler) {
  const Result<MasterConnection*> found = only(name);
  if (found) {
    (*found)->ask(request, std::move(handler));
  } else {
    calls_.add([handler = std::move(handler), error = found.error()] { handler(error); });
  }
}

// The bridges that @p name selects: by their own ADDRESS:PORT, by their address, or as those at the
// address of a device, if it is the only one there.
std::vector<Bridge*> MasterEngine::bridges(const std::string& name) const {
  const std::vector<MasterConnection*> devices = named(name);
  const MasterConnection* const device = devices.size() == 1 ? devices.front() : nullptr;
  const bool alone = device != nullptr && ownerAt(device->host()) == device;
  std::vector<Bridge*> found;
  for (const auto& [id, connection] : connections_) {
    if (connection->isAgent() && (name == connection->place() || name == connection->host() ||
                                  (alone && connection->host() == device->host()))) {
      found.push_back(connection->bridge());
    }
  }
  return found;
}

Result<void> MasterEngine::sendClause(const std::string& name, const std::string& clause) {
  const Result<std::string> line = clauseLine(clause);
  if (!line) {
    return line.error();
  }
  const std::vector<Bridge*> found = bridges(name);
  if (found.empty()) {
    return Error(Kind::link, Cause::other, "no agent of " + name + " is known to be connected");
  }
  if (found.size() > 1) {
    return ambiguous(found.size(), "agents are at", name);
  }
  if (found.front()->queued() > kMostClausesQueued) {
    return Error(Kind::link, Cause::other, "the agent of " + name + " does not read its clauses");
  }
  found.front()->send(*line);
  return {};
}

std::optional<std::size_t> MasterEngine::queuedClauses(const std::string& name) const {
  const std::vector<Bridge*> found = bridges(name);
  if (found.size() != 1) {
    return std::nullopt;
  }
  return found.front()->queued();
}

std::vector<DeviceInfo> MasterEngine::devices() const {
  std::vector<MasterConnection*> ready;
  for (const auto& [id, connection] : connections_) {
    if (connection->isSlave() && connection->ready()) {
      ready.push_back(connection.get());
    }
  }
  return describe(ready);
}

std::vector<DeviceInfo> MasterEngine::find(const std::string& name) const {
  return describe(named(name));
}

std::vector<DeviceInfo> MasterEngine::describe(
    const std::vector<MasterConnection*>& connections) const {
  const std::map<std::string, Additional> others = additional();
  std::vector<DeviceInfo> list;
  for (const MasterConnection* connection : connections) {
    auto data = std::make_shared<DeviceInfo::Data>();
    data->name = connection->name();
    data->hostid = connection->hostid();
    data->deviceType = connection->deviceType();
    data->host = connection->host();
    data->port = connection->port();
    data->since = connection->since();
    data->age = connection->age();
    data->history = history_.of(connection->key());
    const SlaveLink::Counters now = connection->counters();
    data->history.earlier.requests += now.requests;
    data->history.earlier.bytesOut += now.bytesOut;
    data->history.earlier.bytesIn += now.bytesIn;
    data->users = connection->users();
    const auto near = others.find(connection->host());
    if (near != others.end()) {
      data->additional = near->second.count;
      data->agents = near->second.agents;
      data->clauses = near->second.clauses;
    }
    list.push_back(DeviceInfo(std::move(data)));
  }
  return list;
}

std::map<std::string, MasterEngine::Additional> MasterEngine::additional() const {
  std::map<std::string, Additional> found;
  for (const auto& [id, connection] : connections_) {
    if (connection->bridge() != nullptr) {
      Additional& entry = found[connection->host()];
      ++entry.count;
      entry.agents += connection->isAgent() ? 1 : 0;
      entry.clauses += connection->bridge()->clauses();
    }
  }
  return found;
}

}  // namespace v1
}  // namespace runel
