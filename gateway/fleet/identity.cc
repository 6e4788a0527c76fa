// SPDX-License-Identifier: Apache-2.0
#include "gateway/fleet/identity.h"

#include <algorithm>

#include <arpa/inet.h>

#include "gateway/fleet/text.h"

namespace runelgw {
namespace {

using Match = AccessList::Match;

// The stronger of two results.
Match stronger(Match one, Match other) {
  return std::max(one, other);
}

std::string textOf(const Network& network) {
  in_addr address{};
  address.s_addr = htonl(network.address);
  char text[INET_ADDRSTRLEN] = "";
  inet_ntop(AF_INET, &address, text, sizeof text);
  return network.bits == 32 ? text : std::string(text) + "/" + std::to_string(network.bits);
}

bool hasPin(const Standing& standing) {
  return !standing.pinAddress.empty() || !standing.pinCertificate.empty();
}

// Rows 1 to 5 of the table. `work` stands for a connection that reaches row 6.
Verdict judgeAlone(const Standing& standing, const Claim& claim) {
  if (standing.decision == Decision::denied || claim.listed == Match::denied) {
    return Verdict::denied;
  }
  if (standing.mode == NewDevices::refused && claim.listed != Match::allowed) {
    return Verdict::denied;
  }
  if (!matchesPin(standing, claim)) {
    return Verdict::quarantined;
  }
  const bool approved = standing.decision == Decision::approved || claim.listed == Match::allowed;
  return standing.mode == NewDevices::wait && !approved ? Verdict::waiting : Verdict::work;
}

}  // namespace

bool matchesPin(const Standing& standing, const Claim& claim) {
  return (standing.pinAddress.empty() || standing.pinAddress == claim.address) &&
         (standing.pinCertificate.empty() || standing.pinCertificate == claim.certificate);
}

std::string identityOf(const Claimant& claimant) {
  if (!claimant.hostid.empty()) {
    return "h" + claimant.hostid;
  }
  return claimant.certificate.empty() ? "a" + claimant.address : "c" + claimant.certificate;
}

const char* AccessList::kindOf(const std::string& text) {
  return Network::parse(text) ? "address" : "hostid";
}

runel::Result<AccessList::Key> AccessList::keyOf(const std::string& kind,
                                                 const std::string& value) {
  if (kind != "hostid" && kind != "address" && kind != "certificate") {
    return failure("unknown kind '" + printable(kind, 64) +
                   "': expected hostid, address or certificate");
  }
  if (value.empty()) {
    return failure("the " + kind + " is empty");
  }
  if (kind != "address") {
    return Key(kind, value);
  }
  const auto network = Network::parse(value);
  if (!network) {
    return failure("'" + printable(value, 64) + "' is not an IPv4 address or network");
  }
  return Key(kind, textOf(*network));
}

runel::Result<std::string> AccessList::normalValue(const std::string& kind,
                                                   const std::string& value) {
  const runel::Result<Key> key = keyOf(kind, value);
  return key ? runel::Result<std::string>(key->second) : key.error();
}

runel::Result<void> AccessList::set(AccessRecord entry) {
  const runel::Result<Key> key = keyOf(entry.kind, entry.value);
  if (!key) {
    return key.error();
  }
  entry.value = key->second;
  if (entry.kind == "address") {
    const auto network = Network::parse(entry.value);
    networks_[network->bits][network->address] = entry.allow;
  }
  entries_[*key] = std::move(entry);
  return {};
}

bool AccessList::remove(const std::string& kind, const std::string& value) {
  const runel::Result<Key> key = keyOf(kind, value);
  if (!key || entries_.erase(*key) == 0) {
    return false;
  }
  if (kind == "address") {
    const auto network = Network::parse(key->second);
    const auto ofSize = networks_.find(network->bits);
    ofSize->second.erase(network->address);
    if (ofSize->second.empty()) {
      networks_.erase(ofSize);
    }
  }
  return true;
}

std::vector<AccessRecord> AccessList::entries() const {
  std::vector<AccessRecord> entries;
  for (const auto& [key, entry] : entries_) {
    entries.push_back(entry);
  }
  return entries;
}

Match AccessList::find(const Claimant& claimant) const {
  return stronger(findAddress(claimant.address),
                  stronger(findValue("hostid", claimant.hostid),
                           findValue("certificate", claimant.certificate)));
}

Match AccessList::findValue(const char* kind, const std::string& value) const {
  const auto found = value.empty() ? entries_.end() : entries_.find({kind, value});
  if (found == entries_.end()) {
    return Match::none;
  }
  return found->second.allow ? Match::allowed : Match::denied;
}

Match AccessList::findAddress(const std::string& text) const {
  const auto address = parseAddress(text);
  Match match = Match::none;
  for (const auto& [bits, networks] : networks_) {
    const std::uint32_t mask = bits == 0 ? 0 : ~std::uint32_t{0} << (32 - bits);
    const auto found = address ? networks.find(*address & mask) : networks.end();
    if (found != networks.end()) {
      match = stronger(match, found->second ? Match::allowed : Match::denied);
    }
  }
  return match;
}

std::vector<Verdict> judge(const Standing& standing, const std::vector<Claim>& claims) {
  std::vector<Verdict> verdicts;
  verdicts.reserve(claims.size());
  for (const Claim& claim : claims) {
    verdicts.push_back(judgeAlone(standing, claim));
  }
  const auto rivals = std::count(verdicts.begin(), verdicts.end(), Verdict::work);
  const bool pinned = hasPin(standing);
  bool older = false;  // a connection that matches the pin was before
  for (Verdict& verdict : verdicts) {
    if (verdict != Verdict::work) {
      continue;
    }
    if (pinned ? older : rivals > 1) {
      verdict = Verdict::quarantined;
    }
    older = true;
  }
  return verdicts;
}

const char* nameOf(Verdict verdict) {
  static constexpr const char* kNames[] = {"work", "denied", "waiting", "quarantined"};
  return kNames[static_cast<std::size_t>(verdict)];
}

}  // namespace runelgw
