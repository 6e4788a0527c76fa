// SPDX-License-Identifier: Apache-2.0
// The system's name service, which blocks.
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <runel/loop.h>

namespace runel {
inline namespace v1 {
namespace {

using Found = std::unique_ptr<addrinfo, decltype(&freeaddrinfo)>;

Result<in_addr> lookUp(const std::string& host) {
  addrinfo wanted{};
  wanted.ai_family = AF_INET;
  wanted.ai_socktype = SOCK_STREAM;
  addrinfo* list = nullptr;
  const int error = getaddrinfo(host.c_str(), nullptr, &wanted, &list);
  const Found found(list, &freeaddrinfo);
  if (error != 0) {
    return Error(Kind::link, Cause::resolve, gai_strerror(error));
  }
  sockaddr_in first{};
  std::memcpy(&first, found->ai_addr, sizeof first);
  return first.sin_addr;
}

}  // namespace

Result<in_addr> resolveBlocking(const std::string& host) {
  static std::mutex guard;
  static std::map<std::string, in_addr> known;
  const std::lock_guard<std::mutex> held(guard);
  const auto before = known.find(host);
  if (before != known.end()) {
    return before->second;
  }
  Result<in_addr> address = lookUp(host);
  if (address) {
    known[host] = *address;
  }
  return address;
}

Loop::Resolver blockingResolver() {
  return [](const std::string& host, const Loop::Resolved& resolved) {
    resolved(resolveBlocking(host));
  };
}

}  // namespace v1
}  // namespace runel
