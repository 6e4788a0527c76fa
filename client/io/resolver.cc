// SPDX-License-Identifier: Apache-2.0
#include "client/io/resolver.h"

#include <cstring>
#include <map>
#include <memory>

#include <arpa/inet.h>
#include <netdb.h>

namespace runel {
namespace {

using Found = std::unique_ptr<addrinfo, decltype(&freeaddrinfo)>;

int ask(const std::string& host, in_addr& address) {
  addrinfo wanted{};
  wanted.ai_family = AF_INET;
  wanted.ai_socktype = SOCK_STREAM;
  addrinfo* list = nullptr;
  const int error = getaddrinfo(host.c_str(), nullptr, &wanted, &list);
  const Found found(list, &freeaddrinfo);
  if (error == 0) {
    sockaddr_in first{};
    std::memcpy(&first, found->ai_addr, sizeof first);
    address = first.sin_addr;
  }
  return error;
}

}  // namespace

bool resolve(const std::string& host, std::uint16_t port, sockaddr_in& address, std::string& why) {
  static std::map<std::string, in_addr> known;
  address = sockaddr_in();
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  if (inet_pton(AF_INET, host.c_str(), &address.sin_addr) == 1) {
    return true;
  }
  const auto before = known.find(host);
  if (before != known.end()) {
    address.sin_addr = before->second;
    return true;
  }
  const int error = ask(host, address.sin_addr);
  if (error != 0) {
    why = gai_strerror(error);
    return false;
  }
  known[host] = address.sin_addr;
  return true;
}

}  // namespace runel
