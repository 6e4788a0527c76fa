// SPDX-License-Identifier: Apache-2.0
#include "control/master.h"

#include <algorithm>
#include <cstddef>
#include <string_view>
#include <utility>

#include <arpa/inet.h>

#include <nlohmann/json.hpp>

namespace runelctl {
namespace {

// A refused device would reconnect immediately, ten times a second. So its connection is held open.
constexpr runel::Milliseconds kHoldTime{5000};
constexpr std::size_t kMostHeld = 256;
// A device has a slave connection, a bridge and sometimes a surplus connection.
constexpr std::size_t kMostOfOneDevice = 16;
constexpr std::size_t kMostOfOneAddress = 4096;

std::string dotted(const sockaddr_in& from) {
  char text[INET_ADDRSTRLEN] = "";
  (void)inet_ntop(AF_INET, &from.sin_addr, text, sizeof text);  // the buffer fits every address
  return text;
}

runel::ConnectionRoles::Rules rulesOf(const MasterOptions& options) {
  runel::ConnectionRoles::Rules rules;
  rules.shared = options.shared;
  return rules;
}

}  // namespace

Master::Master(runel::Loop& loop, const MasterOptions& options, Journal& journal)
    : loop_(loop),
      options_(options),
      journal_(journal),
      roles_(rulesOf(options)),
      listener_(
          loop,
          [this](zell::UniqueFd socket, const sockaddr_in& from) {
            accepted(std::move(socket), from);
          },
          [this](const std::string& text) { journal_.problem(text); }),
      control_(loop, [this](const std::string& line, zell::UniqueFd socket) {
        asked(line, std::move(socket));
      }) {}

Master::~Master() {
  loop_.cancel(due_);
  for (Held& held : held_) {
    loop_.cancel(held.end);
  }
}

std::string Master::open() {
  // The control socket first: it detects another master before the port is found in use.
  std::string wrong = control_.open(options_.socket);
  if (wrong.empty()) {
    wrong = listener_.open(options_.host, options_.port);
  }
  if (wrong.empty()) {
    journal_.listening(options_.host + ":" + std::to_string(options_.port), options_.socket);
  }
  return wrong;
}

void Master::accepted(zell::UniqueFd socket, const sockaddr_in& from) {
  const Label who{"", dotted(from), ntohs(from.sin_port)};
  const std::string why = refusal(from, who.address);
  if (why.empty()) {
    admit(std::move(socket), who);
  } else {
    turnAway(std::move(socket), who, why);
  }
}

std::string Master::refusal(const sockaddr_in& from, const std::string& address) const {
  if (!options_.access.allowsAddress(ntohl(from.sin_addr.s_addr))) {
    return "address not allowed by --allow";
  }
  const std::size_t most = options_.shared ? kMostOfOneAddress : kMostOfOneDevice;
  return roles_.countAt(address) >= most ? "too many connections from this address" : "";
}

void Master::turnAway(zell::UniqueFd socket, const Label& who, const std::string& why) {
  if (held_.size() >= kMostHeld) {
    return;
  }
  if (toldRefused_.insert(who.address).second) {
    journal_.refused(who, why);
  }
  hold({std::move(socket), 0, who.address, {}});
}

void Master::hold(Held held) {
  held.end = loop_.after(kHoldTime, [this] { letGo(); });
  held_.push_back(std::move(held));
}

// All are held for the same time, so the oldest one has expired.
void Master::letGo() {
  const Held held = std::move(held_.front());
  held_.pop_front();
  toldRefused_.erase(held.address);
  if (stations_.count(held.id) != 0) {
    lost(held.id, "refused");
  }
}

void Master::admit(zell::UniqueFd socket, const Label& who) {
  const Id id = ++last_;
  stations_[id] = std::make_unique<Station>(
      loop_, who, options_.timeout,
      Station::Events{[this, id] { identified(id); }, [this, id] { spoke(id); },
                      [this, id](const std::string& clause) {
                        journal_.clause(stations_.at(id)->label(), clause);
                      },
                      [this, id](const std::string& why) { lost(id, why); }});
  if (roles_.opened(id, who.address, runel::Clock::now()) == runel::ConnectionRoles::Role::slave) {
    stations_[id]->useAsSlave(std::move(socket));
  } else {
    stations_[id]->useAsBridge(std::move(socket), hostidAt(who.address));
    journal_.further(stations_[id]->label());
    checkSlaves(who.address);
  }
  arm();
}

// The host identifier for an additional connection, if its address has only one device.
std::string Master::hostidAt(const std::string& address) const {
  const std::vector<Id> slaves = roles_.slavesAt(address);
  return slaves.size() == 1 ? stations_.at(slaves.front())->label().hostid : "";
}

// A device opens an additional connection for an agent, or because it has lost the first one. A
// check detects the second case.
void Master::checkSlaves(const std::string& address) {
  for (const Id slave : roles_.slavesAt(address)) {
    stations_.at(slave)->check();
  }
}

void Master::identified(Id id) {
  Station& station = *stations_.at(id);
  const Label& who = station.label();
  if (options_.access.allowsHostid(who.hostid)) {
    history_.connected(station.name(), station.since());
    journal_.connected(who, station.deviceType());
    return;
  }
  journal_.refused(who, "host identifier not allowed by --allow-hostid");
  station.refuse();
  hold({zell::UniqueFd(), id, who.address, {}});
}

void Master::spoke(Id id) {
  roles_.spoke(id);
  journal_.agent(stations_.at(id)->label());
  arm();
}

void Master::lost(Id id, const std::string& why) {
  const auto found = stations_.find(id);
  const std::shared_ptr<Station> gone = std::move(found->second);
  stations_.erase(found);
  roles_.closed(id, runel::Clock::now());
  if (gone->isSlave() && gone->ready()) {
    history_.lost(gone->name(), wallClock(), why, gone->counters());
  }
  journal_.lost(gone->label(), gone->role(), why);
  loop_.next([gone] { (void)gone; });  // the station is still on the stack
  arm();
}

void Master::arm() {
  loop_.cancel(due_);
  const std::optional<runel::ConnectionRoles::Time> next = roles_.nextDue();
  if (next) {
    const auto left = std::chrono::ceil<runel::Milliseconds>(*next - runel::Clock::now());
    due_ = loop_.after(std::max(left, runel::Milliseconds(0)), [this] { promote(); });
  }
}

void Master::promote() {
  due_ = runel::Timer();
  for (const Id id : roles_.due(runel::Clock::now())) {
    stations_.at(id)->promote();
  }
  arm();
}

void Master::asked(const std::string& line, zell::UniqueFd socket) {
  static constexpr std::string_view kAttach = "attach ";
  if (line == "devices") {
    control_.sendAndClose(std::move(socket), list());
  } else if (line.compare(0, kAttach.size(), kAttach) == 0) {
    attach(line.substr(kAttach.size()), std::move(socket));
  } else {
    control_.sendAndClose(std::move(socket), "unknown request\n");
  }
}

void Master::attach(const std::string& name, zell::UniqueFd socket) {
  const std::vector<Station*> found = named(name);
  if (found.size() != 1) {
    control_.sendAndClose(std::move(socket),
                          found.empty() ? "no device " + name + " is connected to the master\n"
                                        : std::to_string(found.size()) + " devices are named " +
                                              name + ": select one by ADDRESS:PORT\n");
    return;
  }
  static constexpr std::string_view kOk = "ok\n";
  if (send(socket.get(), kOk.data(), kOk.size(), MSG_NOSIGNAL | MSG_DONTWAIT) ==
      static_cast<ssize_t>(kOk.size())) {
    found.front()->attach(std::move(socket));
  }
}

std::vector<Station*> Master::named(const std::string& name) const {
  std::vector<Station*> found;
  for (const auto& [id, station] : stations_) {
    const Label& who = station->label();
    if (station->ready() && (name == who.hostid || name == who.address ||
                             name == who.address + ":" + std::to_string(who.port))) {
      found.push_back(station.get());
    }
  }
  return found;
}

std::string Master::list() const {
  std::map<std::string, std::vector<const runel::BridgeReader*>> further;
  for (const auto& [id, station] : stations_) {
    if (station->further() != nullptr) {
      further[station->label().address].push_back(station->further());
    }
  }
  std::string text;
  for (const auto& [id, station] : stations_) {
    if (!station->isSlave() || !station->ready()) {
      continue;
    }
    Json object = station->describe(history_.of(station->name()));
    const auto& others = further[station->label().address];
    std::uint64_t clauses = 0;
    for (const runel::BridgeReader* link : others) {
      clauses += link->clauses();
    }
    object["further"] = others.size();
    object["agents"] = std::count_if(others.begin(), others.end(),
                                     [](const auto* link) { return link->hasSpoken(); });
    object["clauses"] = clauses;
    text += object.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n";
  }
  return text;
}

}  // namespace runelctl
