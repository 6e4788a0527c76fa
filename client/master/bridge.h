// SPDX-License-Identifier: Apache-2.0
// An additional connection of a device that already has a slave connection.
#ifndef RUNEL_MASTER_BRIDGE_H_
#define RUNEL_MASTER_BRIDGE_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include <runel/loop.h>

#include "base/unique_fd.h"
#include "protocol/clause_buffer.h"

namespace runel {

/// Reads, and splits the received data into clauses like the daemon. A wrong byte on an agent
/// bridge stops the daemon, so this class writes nothing but the clauses that it is given.
class Bridge {
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

  Bridge(Loop& loop, zell::UniqueFd socket, Events events);
  ~Bridge();
  Bridge(const Bridge&) = delete;
  Bridge& operator=(const Bridge&) = delete;

  /// Keeps the clauses back, also those received together with the first byte, and stops reading
  /// meanwhile.
  void hold();
  /// Reports the clauses that were kept back and reads on. May report the end.
  void release();
  /// Finds out within seconds whether the peer still exists, without sending data.
  void probe();

  /// Queues @p line, one clause with its line end. Only for a bridge that has spoken.
  void send(const std::string& line);
  /// The number of queued bytes that are not sent yet.
  [[nodiscard]] std::size_t queued() const { return out_.size(); }

  /// Releases the socket of a link that is open and has received nothing.
  [[nodiscard]] zell::UniqueFd take();

  [[nodiscard]] bool hasSpoken() const { return spoke_; }
  [[nodiscard]] std::uint64_t clauses() const { return clauses_; }
  [[nodiscard]] std::uint64_t bytes() const { return bytes_; }

 private:
  void ready(std::uint32_t events);
  void watchSocket();
  void receive();
  void flush();
  void cut();
  void end(const std::string& why);

  Loop& loop_;
  zell::UniqueFd socket_;
  Events events_;
  zell::ClauseBuffer buffer_;
  std::string out_;
  bool spoke_ = false;
  bool held_ = false;
  Timer probed_;  // the end of the frequent keepalive probes
  std::uint64_t clauses_ = 0;
  std::uint64_t bytes_ = 0;
};

}  // namespace runel

#endif  // RUNEL_MASTER_BRIDGE_H_
