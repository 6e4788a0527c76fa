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
// With several devices at one address, a check of that address is one of many connections.
constexpr Milliseconds kSuspectPause{1000};
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
  loop_.cancel(checkSuspects_);
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
  auto& connection =
      *(connections_[id] = std::make_unique<MasterConnection>(
            MasterConnection::Context{loop_, calls_, options_.timeout}, host, port, events));
  if (roles_.opened(id, host, Clock::now()) == ConnectionRoles::Role::slave) {
    connection.useAsSlave(std::move(socket));
  } else {
    connection.useAsBridge(std::move(socket));
    additional_[host].all.insert(id);
    tell(about(Type::additional, connection));
    suspect(host);
  }
  arm();
}

// The device of the additional connections from an address, if only one device is there.
const MasterConnection* MasterEngine::ownerAt(const std::string& host) const {
  const std::optional<Id> slave = roles_.onlySlaveAt(host);
  return slave ? &at(*slave) : nullptr;
}

// A device opens an additional connection for an agent, or because it has lost the first one. A
// check detects the second case. The bridge of a device that was switched off is still open here.
void MasterEngine::suspect(const std::string& host) {
  if (!options_.shared) {
    check(host);
    return;
  }
  suspects_.insert(host);
  if (checkSuspects_.id == 0) {
    checkSuspects_ = loop_.after(kSuspectPause, [this] { checkSuspects(); });
  }
}

void MasterEngine::checkSuspects() {
  checkSuspects_ = Timer();
  for (const std::string& host : std::exchange(suspects_, {})) {
    check(host);
  }
}

void MasterEngine::check(const std::string& host) {
  for (const Id slave : roles_.slavesAt(host)) {
    at(slave).check();
  }
  const auto near = additional_.find(host);
  if (near != additional_.end()) {
    for (const Id id : near->second.all) {
      at(id).bridge()->probe();
    }
  }
}

// Events of connections.

void MasterEngine::identified(Id id) {
  MasterConnection& connection = at(id);
  if (options_.access.allowsHostid(connection.hostid())) {
    enter(id, connection);
    history_.connected(connection.key(), connection.since());
    tell(about(Type::connected, connection));
  } else {
    MasterEvent::Data event = about(Type::refused, connection);
    event.refusal = Refusal::hostid;
    tell(event);
    connection.refuse();
    hold({zell::UniqueFd(), id, connection.host(), {}});
  }
  release(connection.host());
}

void MasterEngine::enter(Id id, MasterConnection& connection) {
  connection.setName(freeName(connection));
  names_.insert(connection.name());
  ready_.insert(id);
  for (const std::string& name : {connection.hostid(), connection.host(), connection.place()}) {
    devices_.add(name, id);
  }
}

void MasterEngine::leave(Id id, const MasterConnection& connection) {
  names_.erase(connection.name());
  ready_.erase(id);
  for (const std::string& name : {connection.hostid(), connection.host(), connection.place()}) {
    devices_.remove(name, id);
  }
}

std::string MasterEngine::freeName(const MasterConnection& connection) const {
  for (const std::string& name : {connection.hostid(), connection.host()}) {
    if (!name.empty() && names_.count(name) == 0) {
      return name;
    }
  }
  return connection.place();
}

// A device that has just connected and its agent race: the agent waits for the name.
void MasterEngine::spoke(Id id) {
  const MasterConnection& connection = at(id);
  Additional& near = additional_[connection.host()];
  roles_.spoke(id);
  near.agents.insert(id);
  near.held.insert(id);
  agents_.add(connection.place(), id);
  const MasterConnection* const owner = ownerAt(connection.host());
  if (owner != nullptr && !owner->identified()) {
    connection.bridge()->hold();
  } else {
    announce(id);
  }
  arm();
}

void MasterEngine::announce(Id id) {
  MasterConnection& connection = at(id);
  if (additional_[connection.host()].held.erase(id) != 0) {
    tell(about(Type::agentConnected, connection));
  }
}

// A bridge with invalid data ends when it is released.
void MasterEngine::release(const std::string& host) {
  const auto near = additional_.find(host);
  if (near == additional_.end()) {
    return;
  }
  for (const Id id : std::set<Id>(near->second.held)) {
    announce(id);
    at(id).bridge()->release();
  }
}

void MasterEngine::clause(Id id, const std::string& text) {
  announce(id);
  MasterConnection& connection = at(id);
  ++additional_[connection.host()].clauses;
  MasterEvent::Data event = about(Type::clause, connection);
  event.text = text;
  tell(event);
}

void MasterEngine::lost(Id id, const std::string& why) {
  const bool slave = at(id).isSlave();
  if (!slave) {
    announce(id);
  }
  const auto found = connections_.find(id);
  const std::shared_ptr<MasterConnection> gone = std::move(found->second);
  MasterEvent::Data event = about(slave ? Type::lost : Type::additionalLost, *gone);
  event.text = why;
  event.fromAgent = gone->isAgent();
  connections_.erase(found);
  roles_.closed(id, Clock::now());
  if (!slave) {
    forgetAdditional(id, *gone);
  } else if (gone->ready()) {
    leave(id, *gone);
    history_.lost(gone->key(), wallClockNow(), why, gone->counters());
  }
  tell(event);
  calls_.add([gone] { (void)gone; });  // the connection is still on the stack
  if (slave) {
    release(gone->host());
    suspect(gone->host());
  }
  arm();
}

void MasterEngine::forgetAdditional(Id id, const MasterConnection& connection) {
  const auto found = additional_.find(connection.host());
  Additional& near = found->second;
  near.all.erase(id);
  near.agents.erase(id);
  near.clauses -= connection.bridge()->clauses();
  agents_.remove(connection.place(), id);
  if (near.all.empty()) {
    additional_.erase(found);
  }
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
    forgetAdditional(id, at(id));
    at(id).promote();
  }
  arm();
}

// The device of a bridge may tell its identity only after the bridge was opened.
MasterEvent::Data MasterEngine::about(Type type, MasterConnection& connection) const {
  if (connection.name().empty() && !connection.isSlave()) {
    const MasterConnection* const owner = ownerAt(connection.host());
    if (owner != nullptr) {
      connection.adopt(*owner);
    }
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

Result<MasterConnection*> MasterEngine::only(const std::string& name) const {
  const std::set<Id>& found = devices_.find(name);
  if (found.empty()) {
    return Error(Kind::link, Cause::refusedByMaster,
                 "no device " + name + " is connected to the master");
  }
  if (found.size() > 1) {
    return ambiguous(found.size(), "devices are named", name);
  }
  return &at(*found.begin());
}

void MasterEngine::ask(const std::string& name, const Request& request, ReplyHandler handler) {
  const Result<MasterConnection*> found = only(name);
  if (found) {
    (*found)->ask(request, std::move(handler));
  } else {
    calls_.add([handler = std::move(handler), error = found.error()] { handler(error); });
  }
}

const std::set<MasterEngine::Id>& MasterEngine::agentsAt(const std::string& host) const {
  static const std::set<Id> kNone;
  const auto near = additional_.find(host);
  return near == additional_.end() ? kNone : near->second.agents;
}

// The bridges that @p name selects: by their own ADDRESS:PORT, by their address, or as those at the
// address of a device, if it is the only one there.
MasterEngine::Agents MasterEngine::agents(const std::string& name) const {
  Agents found;
  const auto add = [&](const std::set<Id>& ids) {
    found.count += ids.size();
    found.one = ids.empty() ? found.one : at(*ids.begin()).bridge();
  };
  add(agents_.find(name));
  add(agentsAt(name));
  const std::set<Id>& devices = devices_.find(name);
  if (devices.size() == 1) {
    const MasterConnection& device = at(*devices.begin());
    if (ownerAt(device.host()) == &device && device.host() != name) {
      add(agentsAt(device.host()));
    }
  }
  return found;
}

Result<void> MasterEngine::sendClause(const std::string& name, const std::string& clause) {
  const Result<std::string> line = clauseLine(clause);
  if (!line) {
    return line.error();
  }
  const Agents found = agents(name);
  if (found.count == 0) {
    return Error(Kind::link, Cause::other, "no agent of " + name + " is known to be connected");
  }
  if (found.count > 1) {
    return ambiguous(found.count, "agents are at", name);
  }
  if (found.one->queued() > kMostClausesQueued) {
    return Error(Kind::link, Cause::other, "the agent of " + name + " does not read its clauses");
  }
  found.one->send(*line);
  return {};
}

std::optional<std::size_t> MasterEngine::queuedClauses(const std::string& name) const {
  const Agents found = agents(name);
  if (found.count != 1) {
    return std::nullopt;
  }
  return found.one->queued();
}

std::vector<DeviceInfo> MasterEngine::devices() const {
  std::vector<DeviceInfo> list;
  for (const Id id : ready_) {
    list.push_back(describe(at(id)));
  }
  return list;
}

std::vector<DeviceInfo> MasterEngine::find(const std::string& name) const {
  std::vector<DeviceInfo> list;
  for (const Id id : devices_.find(name)) {
    list.push_back(describe(at(id)));
  }
  return list;
}

DeviceInfo MasterEngine::describe(const MasterConnection& connection) const {
  auto data = std::make_shared<DeviceInfo::Data>();
  data->name = connection.name();
  data->hostid = connection.hostid();
  data->deviceType = connection.deviceType();
  data->host = connection.host();
  data->port = connection.port();
  data->since = connection.since();
  data->age = connection.age();
  data->history = history_.of(connection.key());
  const SlaveLink::Counters now = connection.counters();
  data->history.earlier.requests += now.requests;
  data->history.earlier.bytesOut += now.bytesOut;
  data->history.earlier.bytesIn += now.bytesIn;
  data->users = connection.users();
  const auto near = additional_.find(connection.host());
  if (near != additional_.end()) {
    data->additional = near->second.all.size();
    data->agents = near->second.agents.size();
    data->clauses = near->second.clauses;
  }
  return DeviceInfo(std::move(data));
}

}  // namespace v1
}  // namespace runel
