// SPDX-License-Identifier: Apache-2.0
// An additional connection of a device that already has a slave connection. It is only read.
#ifndef RUNEL_MASTER_BRIDGE_READER_H_
#define RUNEL_MASTER_BRIDGE_READER_H_

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include <runel/loop.h>

#include "base/unique_fd.h"
#include "protocol/clause_buffer.h"

namespace runel {

/// A wrong byte on an agent bridge stops the daemon, so this class never writes. The received data
/// is split into clauses like in the daemon.
class BridgeReader {
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

  BridgeReader(Loop& loop, zell::UniqueFd socket, Events events);
  ~BridgeReader();
  BridgeReader(const BridgeReader&) = delete;
  BridgeReader& operator=(const BridgeReader&) = delete;

  /// Releases the socket of a link that is open and has received nothing.
  [[nodiscard]] zell::UniqueFd take();

  [[nodiscard]] bool hasSpoken() const { return spoke_; }
  [[nodiscard]] std::uint64_t clauses() const { return clauses_; }
  [[nodiscard]] std::uint64_t bytes() const { return bytes_; }

 private:
  void receive();
  void cut();
  void end(const std::string& why);

  Loop& loop_;
  zell::UniqueFd socket_;
  Events events_;
  zell::ClauseBuffer buffer_;
  bool spoke_ = false;
  std::uint64_t clauses_ = 0;
  std::uint64_t bytes_ = 0;
};

}  // namespace runel

#endif  // RUNEL_MASTER_BRIDGE_READER_H_
