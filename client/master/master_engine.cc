// SPDX-License-Identifier: Apache-2.0
#include "client/master/master_engine.h"

#include <algorithm>
#include <charconv>
#include <chrono>
#include <optional>
#include <system_error>
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

// The peer at @p from, without a certificate.
MasterConnection::Peer peerAt(const sockaddr_in& from) {
  MasterConnection::Peer peer;
  peer.address = ntohl(from.sin_addr.s_addr);
  peer.port = ntohs(from.sin_port);
  return peer;
}

// In host byte order. Only of the one text that an address has here.
std::optional<std::uint32_t> parseAddress(const std::string& text) {
  in_addr network{};
  if (inet_pton(AF_INET, text.c_str(), &network) != 1) {
    return std::nullopt;
  }
  return ntohl(network.s_addr);
}

// The number of ADDRESS:PORT, 0 for another text.
std::uint64_t parsePlace(const std::string& text) {
  const std::size_t colon = std::min(text.find(':'), text.size());
  const std::optional<std::uint32_t> address = parseAddress(text.substr(0, colon));
  const std::string digits = text.substr(std::min(colon + 1, text.size()));
  std::uint16_t port = 0;
  const auto [stop, error] = std::from_chars(digits.data(), digits.data() + digits.size(), port);
  const bool whole = error == std::errc() && std::to_string(port) == digits;
  return address && whole ? std::uint64_t{*address} << 16 | port : 0;
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
    case MasterEvent::Refusal::duplicate:
      return "another connection has this address and port";
    case MasterEvent::Refusal::policy:
      return "not to be used";
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
      context_{loop, calls_, options_.timeout, *this},
      roles_(rulesOf(options_.shared)),
      history_(options_.history),
      pace_(options_.identifyRate) {
  for (std::size_t i = 0; i < options_.listen.size(); ++i) {
    addListener();
  }
}

MasterEngine::~MasterEngine() {
  loop_.cancel(due_);
  loop_.cancel(checkSuspects_);
  loop_.cancel(identify_);
  for (Held& held : held_) {
    loop_.cancel(held.end);
  }
}

void MasterEngine::addListener() {
  listeners_.push_back(std::make_unique<Listener>(
      loop_,
      [this](zell::UniqueFd socket, const sockaddr_in& from) { accepted(std::move(socket), from); },
      [this](const std::string& text) {
        MasterEvent::Data event;
        event.text = text;
        tell(event);
      }));
}

Result<void> MasterEngine::open() {
  for (std::size_t i = 0; i < listeners_.size(); ++i) {
    Result<void> opened = listeners_[i]->open(options_.listen[i].host, options_.listen[i].port);
    if (!opened) {
      return opened;
    }
  }
  return {};
}

std::uint16_t MasterEngine::port() const {
  return listeners_.front()->port();
}

std::vector<std::uint16_t> MasterEngine::ports() const {
  std::vector<std::uint16_t> ports;
  for (const auto& listener : listeners_) {
    ports.push_back(listener->port());
  }
  return ports;
}

// Admission.

void MasterEngine::accepted(zell::UniqueFd socket, const sockaddr_in& from) {
  const Peer peer = peerAt(from);
  if (!options_.proxies.lists(peer.address)) {
    arrived(std::move(socket), peer);
    return;
  }
  const Id id = ++last_;
  arriving_[id] = std::make_unique<ProxiedSocket>(
      loop_, std::move(socket), [this, id, from](zell::UniqueFd passed, const ProxyHeader& header) {
        const auto kept = arriving_.extract(id);  // it owns the header
        arrivedByProxy(std::move(passed), from, header);
      });
}

// Even a connection without a header may be that of a device, which would connect again.
void MasterEngine::arrivedByProxy(zell::UniqueFd socket, const sockaddr_in& proxy,
                                  const ProxyHeader& header) {
  if (!socket.valid()) {
    return;
  }
  if (header.state() == ProxyHeader::State::proxied) {
    arrived(std::move(socket), {header.address(), header.port(), header.verifiedName()});
    return;
  }
  const bool local = header.state() == ProxyHeader::State::local;
  MasterEvent::Data event = refusedAt(peerAt(proxy), local ? Refusal::none : Refusal::proxyHeader);
  event.text = header.problem().empty() ? "no header of the proxy in time" : header.problem();
  turnAway(std::move(socket), event);
}

void MasterEngine::arrived(zell::UniqueFd socket, const Peer& peer) {
  const Refusal refused = refusal(peer);
  if (refused == Refusal::none) {
    admit(std::move(socket), peer);
  } else {
    turnAway(std::move(socket), refusedAt(peer, refused));
  }
}

bool MasterEngine::isShared(std::uint32_t address) const {
  const AccessList& shared = options_.sharedAddresses;
  return options_.shared && (!shared.listsAny() || shared.lists(address));
}

MasterEngine::Refusal MasterEngine::refusal(const Peer& peer) const {
  if (!options_.access.allowsAddress(peer.address)) {
    return Refusal::address;
  }
  const std::size_t most = isShared(peer.address) ? kMostOfOneAddress : kMostOfOneDevice;
  if (roles_.countAt(peer.group()) >= most) {
    return Refusal::tooManyConnections;
  }
  // Only a proxy can name the same address and port twice.
  return places_.count(peer.place()) != 0 ? Refusal::duplicate : Refusal::none;
}

MasterEvent::Data MasterEngine::refusedAt(const Peer& peer, Refusal refusal) {
  MasterEvent::Data event;
  event.type = Type::refused;
  event.host = peer.host();
  event.port = peer.port;
  event.certificate = peer.certificate;
  event.refusal = refusal;
  return event;
}

void MasterEngine::turnAway(zell::UniqueFd socket, const MasterEvent::Data& event) {
  if (options_.held != 0) {
    holdSilently(std::move(socket), event);
    return;
  }
  if (held_.size() >= kMostHeld) {
    return;
  }
  if (event.refusal != Refusal::none && toldRefused_.insert(event.host).second) {
    tell(event);
  }
  hold({std::move(socket), 0, event.host, {}});
}

void MasterEngine::holdSilently(zell::UniqueFd socket, const MasterEvent::Data& event) {
  std::size_t& count = silentAt_[event.host];
  if (silent() >= options_.held || count >= kMostOfOneAddress) {
    silentAt_.erase(count == 0 ? event.host : "");
    return;
  }
  if (count++ == 0 && event.refusal != Refusal::none) {
    tell(event);
  }
  const Id id = ++last_;
  silent_[id] = {std::make_unique<SilentSocket>(loop_, std::move(socket), false,
                                                [this, id](const std::string&) {
                                                  const auto kept = silent_.extract(id);
                                                  const auto at =
                                                      silentAt_.find(kept.mapped().host);
                                                  if (--at->second == 0) {
                                                    silentAt_.erase(at);
                                                  }
                                                }),
                 event.host};
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

void MasterEngine::admit(zell::UniqueFd socket, const Peer& peer) {
  const Id id = ++last_;
  auto& connection = *(connections_[id] = std::make_unique<MasterConnection>(context_, id, peer));
  places_.emplace(peer.place(), id);
  const bool shared = isShared(peer.address);
  if (roles_.opened(id, peer.group(), Clock::now(), shared) == ConnectionRoles::Role::further) {
    connection.useAsBridge(std::move(socket));
    addFurther(id, connection);
  } else if (options_.policy || pace_.isLimited()) {
    connection.wait(std::move(socket));
    begin(id);
  } else {
    connection.useAsSlave(std::move(socket));
  }
  arm();
}

std::optional<Milliseconds> MasterEngine::silenceFor(const MasterConnection& connection) const {
  if (!options_.policy) {
    return Milliseconds(0);
  }
  return options_.policy(connection.host(), connection.port(), connection.peer().certificate);
}

// A waiting connection that the roles made a slave connection.
void MasterEngine::begin(Id id) {
  MasterConnection& connection = at(id);
  const std::optional<Milliseconds> silence = silenceFor(connection);
  if (!silence) {
    this->silence(id, connection, Error(Kind::link, Cause::refusedByMaster, "not to be used"));
    MasterEvent::Data event = about(Type::refused, connection);
    event.refusal = Refusal::policy;
    tell(event);
  } else if (silence->count() > 0) {
    roles_.wait(id, Clock::now() + *silence);
  } else {
    useLater(id);
  }
}

void MasterEngine::useLater(Id id) {
  if (!pace_.isLimited()) {
    at(id).promote();
    return;
  }
  toIdentify_.insert(id);
  if (identify_.id == 0) {
    identifyNext();
  }
}

void MasterEngine::identifyNext() {
  identify_ = Timer();
  for (std::size_t left = pace_.take(Clock::now(), toIdentify_.size()); left > 0; --left) {
    const Id id = *toIdentify_.begin();
    toIdentify_.erase(toIdentify_.begin());
    at(id).promote();
  }
  if (!toIdentify_.empty()) {
    identify_ = loop_.after(pace_.pause(), [this] { identifyNext(); });
  }
}

void MasterEngine::addFurther(Id id, MasterConnection& connection) {
  const std::string group = connection.group();
  additional_[group].all.insert(id);
  tell(about(Type::additional, connection));
  suspect(group);
}

bool MasterEngine::silence(const std::string& place) {
  const auto found = places_.find(parsePlace(place));
  if (found == places_.end() || !at(found->second).isSlave() || at(found->second).isSilent()) {
    return false;
  }
  silence(found->second, at(found->second),
          Error(Kind::link, Cause::refusedByMaster, "the connection is not used any more"));
  return true;
}

bool MasterEngine::resume(const std::string& place) {
  const auto found = places_.find(parsePlace(place));
  if (found == places_.end() || !at(found->second).isSilent()) {
    return false;
  }
  const Id id = found->second;
  MasterConnection& connection = at(id);
  if (!connection.resume()) {
    lost(id, "requests were on the way when it became silent");
    return false;
  }
  --silenced_;
  enter(connection);
  history_.connected(connection.key(), connection.since());
  return true;
}

void MasterEngine::silence(Id id, MasterConnection& connection, const Error& error) {
  if (connection.ready()) {
    leave(connection);
    history_.lost(connection.key(), wallClockNow(), error.text(), connection.counters());
  }
  toIdentify_.erase(id);
  ++silenced_;
  connection.silence(error);
  release(connection.group());
}

// The device of the additional connections of a group, if it has only one.
const MasterConnection* MasterEngine::ownerAt(const std::string& group) const {
  const std::optional<Id> slave = roles_.onlySlaveAt(group);
  return slave ? &at(*slave) : nullptr;
}

// A device opens an additional connection for an agent, or because it has lost the first one. A
// check detects the second case. The bridge of a device that was switched off is still open here.
void MasterEngine::suspect(const std::string& group) {
  if (!options_.shared) {
    check(group);
    return;
  }
  suspects_.insert(group);
  if (checkSuspects_.id == 0) {
    checkSuspects_ = loop_.after(kSuspectPause, [this] { checkSuspects(); });
  }
}

void MasterEngine::checkSuspects() {
  checkSuspects_ = Timer();
  for (const std::string& group : std::exchange(suspects_, {})) {
    check(group);
  }
}

void MasterEngine::check(const std::string& group) {
  for (const Id slave : roles_.slavesAt(group)) {
    at(slave).check();
  }
  const auto near = additional_.find(group);
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
    enter(connection);
    history_.connected(connection.key(), connection.since());
    MasterEvent::Data event = about(Type::connected, connection);
    event.rawHostid = connection.takeRawHostid();
    tell(event);
  } else {
    MasterEvent::Data event = about(Type::refused, connection);
    event.refusal = Refusal::hostid;
    tell(event);
    connection.refuse();
    if (options_.held != 0) {
      silence(id, connection, Error(Kind::link, Cause::refusedByMaster, event.text));
    } else {
      hold({zell::UniqueFd(), id, connection.host(), {}});
    }
  }
  release(connection.group());
}

void MasterEngine::enter(MasterConnection& connection) {
  connection.setName(freeName(connection));
  names_.insert(connection.name());
  ready_.insert(&connection);
  if (!connection.hostid().empty()) {
    named_.insert(&connection);
  }
}

void MasterEngine::leave(const MasterConnection& connection) {
  names_.erase(connection.name());
  ready_.erase(&connection);
  named_.erase(&connection);
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
  MasterConnection& connection = at(id);
  const std::string group = connection.group();
  roles_.spoke(id);
  if (connection.isWaiting()) {  // it was to become the slave connection, and is a bridge
    toIdentify_.erase(id);
    connection.stopWaiting();
    addFurther(id, connection);
  }
  Additional& near = additional_[group];
  near.agents.insert(id);
  near.held.insert(id);
  agents_.add(connection.place(), id);
  const MasterConnection* const owner = ownerAt(group);
  if (owner != nullptr && !owner->identified() && !owner->isSilent()) {
    connection.bridge()->hold();
  } else {
    announce(id);
  }
  arm();
}

void MasterEngine::announce(Id id) {
  MasterConnection& connection = at(id);
  if (additional_[connection.group()].held.erase(id) != 0) {
    tell(about(Type::agentConnected, connection));
  }
}

// A bridge with invalid data ends when it is released.
void MasterEngine::release(const std::string& group) {
  const auto near = additional_.find(group);
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
  ++additional_[connection.group()].clauses;
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
  places_.erase(gone->peer().place());
  toIdentify_.erase(id);
  silenced_ -= gone->isSilent() ? 1 : 0;
  roles_.closed(id, Clock::now());
  if (!slave) {
    forgetAdditional(id, *gone);
  } else if (gone->ready()) {
    leave(*gone);
    history_.lost(gone->key(), wallClockNow(), why, gone->counters());
  }
  tell(event);
  calls_.add([gone] { (void)gone; });  // the connection is still on the stack
  if (slave) {
    release(gone->group());
    suspect(gone->group());
  }
  arm();
}

void MasterEngine::forgetAdditional(Id id, const MasterConnection& connection) {
  const auto found = additional_.find(connection.group());
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
    at(id).wait();
    begin(id);
  }
  endWaits();
  arm();
}

void MasterEngine::endWaits() {
  for (const auto& [id, role] : roles_.waited(Clock::now())) {
    MasterConnection& connection = at(id);
    if (role == ConnectionRoles::Role::further) {
      connection.stopWaiting();
      addFurther(id, connection);
    } else {
      useLater(id);
    }
  }
}

// The device of a bridge may tell its identity only after the bridge was opened.
MasterEvent::Data MasterEngine::about(Type type, MasterConnection& connection) const {
  MasterEvent::Data event;
  if (connection.isSlave()) {
    event.taskPlace = connection.place();
  } else {
    const MasterConnection* const owner = ownerAt(connection.group());
    if (owner != nullptr && connection.name().empty()) {
      connection.adopt(*owner);
    }
    event.taskPlace = owner == nullptr ? "" : owner->place();
  }
  event.type = type;
  event.device = connection.name();
  event.hostid = connection.hostid();
  event.deviceType = connection.deviceType();
  event.host = connection.host();
  event.port = connection.port();
  event.certificate = connection.peer().certificate;
  return event;
}

void MasterEngine::tell(const MasterEvent::Data& event) {
  auto data = std::make_shared<MasterEvent::Data>(event);
  if (event.type == Type::refused && event.text.empty()) {
    data->text = reasonOf(event.refusal);
  }
  if (*handler_) {
    calls_.add([handler = handler_, event = MasterEvent(std::move(data))] { (*handler)(event); });
  }
}

// Devices by name.

bool MasterEngine::ByHostid::operator()(const MasterConnection* one,
                                        const MasterConnection* other) const {
  const int order = one->hostid().compare(other->hostid());
  return order != 0 ? order < 0 : one->id() < other->id();
}

bool MasterEngine::ByHostid::operator()(const MasterConnection* one,
                                        std::string_view hostid) const {
  return one->hostid() < hostid;
}

bool MasterEngine::ByHostid::operator()(std::string_view hostid,
                                        const MasterConnection* one) const {
  return hostid < one->hostid();
}

bool MasterEngine::ByAddress::operator()(const MasterConnection* one,
                                         const MasterConnection* other) const {
  const std::uint32_t address = one->peer().address;
  return address != other->peer().address ? address < other->peer().address
                                          : one->id() < other->id();
}

bool MasterEngine::ByAddress::operator()(const MasterConnection* one, std::uint32_t address) const {
  return one->peer().address < address;
}

bool MasterEngine::ByAddress::operator()(std::uint32_t address, const MasterConnection* one) const {
  return address < one->peer().address;
}

// By host identifier, address or ADDRESS:PORT: a name of one device may be that of another too.
std::set<MasterEngine::Id> MasterEngine::idsOf(const std::string& name) const {
  std::set<Id> ids;
  const auto add = [&ids](const auto& range) {
    for (auto one = range.first; one != range.second; ++one) {
      ids.insert((*one)->id());
    }
  };
  add(named_.equal_range(std::string_view(name)));
  const std::optional<std::uint32_t> address = parseAddress(name);
  if (address) {
    add(ready_.equal_range(*address));
  }
  const auto place = places_.find(parsePlace(name));
  if (place != places_.end() && at(place->second).ready()) {
    ids.insert(place->second);
  }
  return ids;
}

Result<MasterConnection*> MasterEngine::only(const std::string& name) const {
  const std::set<Id> found = idsOf(name);
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

const std::set<MasterEngine::Id>& MasterEngine::agentsAt(const std::string& group) const {
  static const std::set<Id> kNone;
  const auto near = additional_.find(group);
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
  const std::set<Id> devices = idsOf(name);
  if (devices.size() == 1) {
    const MasterConnection& device = at(*devices.begin());
    const std::string group = device.group();
    if (ownerAt(group) == &device && group != name) {
      add(agentsAt(group));
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
  for (const auto& [id, connection] : connections_) {
    if (connection->ready()) {
      list.push_back(describe(*connection));
    }
  }
  return list;
}

std::vector<DeviceInfo> MasterEngine::find(const std::string& name) const {
  std::vector<DeviceInfo> list;
  for (const Id id : idsOf(name)) {
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
  data->certificate = connection.peer().certificate;
  data->since = connection.since();
  data->age = connection.age();
  data->history = history_.of(connection.key());
  const SlaveLink::Counters now = connection.counters();
  data->history.earlier.requests += now.requests;
  data->history.earlier.bytesOut += now.bytesOut;
  data->history.earlier.bytesIn += now.bytesIn;
  data->users = connection.users();
  const auto near = additional_.find(connection.group());
  if (near != additional_.end()) {
    data->additional = near->second.all.size();
    data->agents = near->second.agents.size();
    data->clauses = near->second.clauses;
  }
  return DeviceInfo(std::move(data));
}

}  // namespace v1
}  // namespace runel
