// SPDX-License-Identifier: Apache-2.0
#include "probe/background_resolver.h"

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <optional>
#include <system_error>
#include <thread>
#include <utility>

#include <netdb.h>
#include <netinet/in.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <runel/error.h>

#include "base/unique_fd.h"

namespace runelctl {
namespace {

runel::Error resolveError(const std::string& text) {
  return {runel::Kind::link, runel::Cause::resolve, text};
}

}  // namespace

// The thread writes the result before it makes the descriptor readable, and nothing afterwards.
struct BackgroundResolver::LookUp {
  std::string host;
  runel::Loop::Resolved resolved;
  zell::UniqueFd ready;
  int error = 0;  // of getaddrinfo
  in_addr address{};

  void run() {
    addrinfo wanted{};
    wanted.ai_family = AF_INET;
    wanted.ai_socktype = SOCK_STREAM;
    addrinfo* list = nullptr;
    error = getaddrinfo(host.c_str(), nullptr, &wanted, &list);
    if (error == 0) {
      sockaddr_in first{};
      std::memcpy(&first, list->ai_addr, sizeof first);
      address = first.sin_addr;
      freeaddrinfo(list);
    }
    (void)eventfd_write(ready.get(), 1);
  }
};

BackgroundResolver::BackgroundResolver(runel::Loop& loop) : loop_(loop) {
  loop_.setResolver([this](const std::string& host, runel::Loop::Resolved resolved) {
    start(host, std::move(resolved));
  });
}

BackgroundResolver::~BackgroundResolver() {
  for (const auto& [descriptor, lookUp] : lookUps_) {
    loop_.forget(descriptor);
    lookUp->resolved = nullptr;  // the thread keeps the rest
  }
  loop_.setResolver(nullptr);
}

void BackgroundResolver::start(const std::string& host, runel::Loop::Resolved resolved) {
  auto lookUp = std::make_shared<LookUp>();
  lookUp->host = host;
  lookUp->ready.reset(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  const int descriptor = lookUp->ready.get();
  if (!lookUp->ready.valid() ||
      !loop_.watch(descriptor, EPOLLIN,
                   [this, descriptor](std::uint32_t) { finish(descriptor); })) {
    resolved(resolveError(runel::systemText(errno)));
    return;
  }
  try {
    std::thread([lookUp] { lookUp->run(); }).detach();
  } catch (const std::system_error& error) {
    loop_.forget(descriptor);
    resolved(resolveError(error.what()));
    return;
  }
  lookUp->resolved = std::move(resolved);  // the thread does not use it
  lookUps_[descriptor] = std::move(lookUp);
}

void BackgroundResolver::finish(int descriptor) {
  const auto found = lookUps_.find(descriptor);
  const std::shared_ptr<LookUp> lookUp = found->second;
  lookUps_.erase(found);
  loop_.forget(descriptor);
  const runel::Loop::Resolved resolved = std::exchange(lookUp->resolved, nullptr);
  if (lookUp->error == 0) {
    resolved(lookUp->address);
  } else {
    resolved(resolveError(gai_strerror(lookUp->error)));
  }
}

}  // namespace runelctl
