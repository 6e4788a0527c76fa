// SPDX-License-Identifier: Apache-2.0
// The port that devices connect to.
#ifndef RUNEL_MASTER_LISTENER_H_
#define RUNEL_MASTER_LISTENER_H_

#include <cstdint>
#include <functional>
#include <string>

#include <netinet/in.h>

#include <runel/loop.h>
#include <runel/result.h>

#include "base/unique_fd.h"

namespace runel {

class Listener {
 public:
  using Accepted = std::function<void(zell::UniqueFd socket, const sockaddr_in& from)>;

  /// @p problem is called when connections cannot be accepted.
  Listener(Loop& loop, Accepted accepted, std::function<void(const std::string&)> problem)
      : loop_(loop), accepted_(std::move(accepted)), problem_(std::move(problem)) {}
  ~Listener();
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;

  /// Listens on the IPv4 address @p host. Fails with `Kind::local`.
  [[nodiscard]] Result<void> open(const std::string& host, std::uint16_t port);
  /// 0 while it does not listen.
  [[nodiscard]] std::uint16_t port() const;

 private:
  [[nodiscard]] bool watch();
  void accept();
  void rest(int number);

  Loop& loop_;
  const Accepted accepted_;
  const std::function<void(const std::string&)> problem_;
  zell::UniqueFd socket_;
  Timer pause_;
};

}  // namespace runel

#endif  // RUNEL_MASTER_LISTENER_H_
