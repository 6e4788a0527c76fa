// SPDX-License-Identifier: Apache-2.0
// An additional connection of a device that already has a slave connection. It is only read.
#ifndef ZELL_CLIENT_MASTER_FURTHER_LINK_H_
#define ZELL_CLIENT_MASTER_FURTHER_LINK_H_

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "base/unique_fd.h"
#include "client/core/loop.h"
#include "protocol/clause_buffer.h"

namespace zell::ctl {

/// A wrong byte on an agent bridge stops the daemon, so this class never writes. The received data
/// is split into clauses like in the daemon.
class FurtherLink {
 public:
  struct Events {
    /// The first byte was received: this is the bridge of an agent.
    std::function<void()> spoke;
    /// One complete clause.
    std::function<void(const std::string& clause)> clause;
    /// The connection is closed, or the peer sent invalid data. The link may be destroyed from the
    /// next turn of the loop.
    std::function<void(const std::string& why)> end;
  };

  FurtherLink(Loop& loop, UniqueFd socket, Events events);
  ~FurtherLink();
  FurtherLink(const FurtherLink&) = delete;
  FurtherLink& operator=(const FurtherLink&) = delete;

  /// Releases the socket of a link that is open and has received nothing.
  [[nodiscard]] UniqueFd take();

  [[nodiscard]] bool hasSpoken() const { return spoke_; }
  [[nodiscard]] std::uint64_t clauses() const { return clauses_; }
  [[nodiscard]] std::uint64_t bytes() const { return bytes_; }

 private:
  void receive();
  void cut();
  void end(const std::string& why);

  Loop& loop_;
  UniqueFd socket_;
  Events events_;
  ClauseBuffer buffer_;
  bool spoke_ = false;
  std::uint64_t clauses_ = 0;
  std::uint64_t bytes_ = 0;
};

}  // namespace zell::ctl

#endif  // ZELL_CLIENT_MASTER_FURTHER_LINK_H_
