// SPDX-License-Identifier: Apache-2.0
#include "client/master/access_list.h"

#include <algorithm>
#include <charconv>
#include <sstream>
#include <system_error>
#include <vector>

#include <arpa/inet.h>
#include <netinet/in.h>

namespace runel {
namespace {

constexpr unsigned kAddressBits = 32;
constexpr std::size_t kLongestName = 64;

std::vector<std::string> split(const std::string& list) {
  std::vector<std::string> parts;
  std::istringstream words(list);
  std::string part;
  while (std::getline(words, part, ',')) {
    parts.push_back(part);
  }
  if (!list.empty() && list.back() == ',') {
    parts.emplace_back();
  }
  return parts;
}

bool readBits(const std::string& digits, unsigned& bits) {
  const char* end = digits.data() + digits.size();
  const auto [stop, error] = std::from_chars(digits.data(), end, bits);
  return error == std::errc() && stop == end && bits <= kAddressBits;
}

}  // namespace

bool usableName(const std::string& text) {
  const auto usable = [](char byte) {
    return (byte >= '0' && byte <= '9') || (byte >= 'a' && byte <= 'z') ||
           (byte >= 'A' && byte <= 'Z') || byte == '.' || byte == '-' || byte == '_';
  };
  return !text.empty() && text.size() <= kLongestName &&
         std::all_of(text.begin(), text.end(), usable);
}

bool AccessList::addNetwork(const std::string& text) {
  const std::size_t slash = text.find('/');
  unsigned bits = kAddressBits;
  if (slash != std::string::npos && !readBits(text.substr(slash + 1), bits)) {
    return false;
  }
  in_addr address{};
  if (inet_pton(AF_INET, text.substr(0, slash).c_str(), &address) != 1) {
    return false;
  }
  const std::uint32_t mask = bits == 0 ? 0 : ~std::uint32_t{0} << (kAddressBits - bits);
  networks_[mask].insert(ntohl(address.s_addr) & mask);
  return true;
}

bool AccessList::addAddresses(const std::string& list) {
  const std::vector<std::string> parts = split(list);
  return !parts.empty() && std::all_of(parts.begin(), parts.end(),
                                       [this](const auto& part) { return addNetwork(part); });
}

bool AccessList::addHostids(const std::string& list) {
  const std::vector<std::string> parts = split(list);
  hostids_.insert(parts.begin(), parts.end());
  return !parts.empty() && std::all_of(parts.begin(), parts.end(), usableName);
}

bool AccessList::lists(std::uint32_t address) const {
  return std::any_of(networks_.begin(), networks_.end(), [&](const auto& entry) {
    return entry.second.count(address & entry.first) != 0;
  });
}

bool AccessList::allowsAddress(std::uint32_t address) const {
  return networks_.empty() || lists(address);
}

bool AccessList::allowsHostid(const std::string& hostid) const {
  return hostids_.empty() || hostids_.count(hostid) != 0;
}

}  // namespace runel
