// SPDX-License-Identifier: Apache-2.0
// A connection of a device that has its slave connection already: listened to, never written to.
#ifndef ZELL_RUNELCTL_MASTER_FURTHER_LINK_H_
#define ZELL_RUNELCTL_MASTER_FURTHER_LINK_H_

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "base/unique_fd.h"
#include "client/loop.h"
#include "connections/clause_buffer.h"

namespace zell::ctl {

/// A byte written to a bridge in the wrong place stops the daemon behind it, so nothing in here can
/// write. What comes is cut into clauses as the daemon cuts them.
class FurtherLink {
 public:
  struct Events {
    /// The first byte came: it is an agent's bridge.
    std::function<void()> spoke;
    /// One whole clause.
    std::function<void(const std::string& clause)> clause;
    /// The connection is over, or sent what no bridge sends. May be destroyed from the loop's next
    /// turn on.
    std::function<void(const std::string& why)> end;
  };

  FurtherLink(Loop& loop, UniqueFd socket, Events events);
  ~FurtherLink();
  FurtherLink(const FurtherLink&) = delete;
  FurtherLink& operator=(const FurtherLink&) = delete;

  /// Gives up the socket, of a link that has not spoken and is not over.
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

#endif  // ZELL_RUNELCTL_MASTER_FURTHER_LINK_H_
