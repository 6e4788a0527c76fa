// SPDX-License-Identifier: Apache-2.0
// The connection on which a device takes tasks, shared by all who have tasks for it.
#ifndef ZELL_RUNELCTL_MASTER_SLAVE_LINK_H_
#define ZELL_RUNELCTL_MASTER_SLAVE_LINK_H_

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <string>

#include "base/unique_fd.h"
#include "client/channel.h"
#include "client/error.h"
#include "client/loop.h"
#include "client/request.h"

namespace zell::ctl {

/// Sends requests one behind the other and gives each answer to the one who asked. Knows the
/// connection to be half-open when the other side stops confirming what it gets.
class SlaveLink {
 public:
  /// Gets the answer's text form. Not called when the link is lost before.
  using Answer = std::function<void(std::string&& payload)>;
  struct Events {
    /// The link is over. It may be destroyed from the loop's next turn on.
    std::function<void(const Error& error)> lost;
    /// Something went out or came in: who waits for room may look again. May be empty.
    std::function<void()> progress;
  };
  struct Counters {
    std::uint64_t requests = 0;
    std::uint64_t bytesOut = 0;  ///< of payloads
    std::uint64_t bytesIn = 0;
  };

  /// @p patience: how long the device may take for a cheap task when it has nothing else to do.
  SlaveLink(Loop& loop, UniqueFd socket, Milliseconds patience, Events events);
  ~SlaveLink();
  SlaveLink(const SlaveLink&) = delete;
  SlaveLink& operator=(const SlaveLink&) = delete;

  /// Sends a user's @p payload, whatever is in it.
  void forward(std::string payload, Answer answer);
  /// Asks something cheap on the master's own behalf; it must be answered in time.
  void ask(const Request& request, ReplyHandler handler);
  /// Finds out whether anybody is still there; `lost` when nobody is.
  void check();

  /// Stops and goes on taking answers, for users who are slow to take theirs.
  void setReading(bool reading);
  /// True while there is so much on the way that users should wait with more.
  [[nodiscard]] bool busy() const;
  [[nodiscard]] std::size_t waiting() const { return pending_.size(); }
  [[nodiscard]] const Counters& counters() const { return counters_; }

 private:
  struct Pending {
    Answer answer;
    bool own;
  };

  void send(std::string payload, Answer answer, bool own);
  void take(std::string&& payload);
  void limitAnswers();
  void watchCheck();
  [[nodiscard]] bool confirms(Milliseconds since) const;
  [[nodiscard]] bool onlyOwnWork() const;
  void lose(const Error& error);

  Loop& loop_;
  const Milliseconds patience_;
  Events events_;
  Channel channel_;
  std::deque<Pending> pending_;
  std::size_t users_ = 0;  // of pending_, those that are not our own
  Counters counters_;
  bool reading_ = true;
  std::size_t unanswered_ = 0;  // our own requests that wait
  Clock::time_point asked_;     // when the oldest check began
  Loop::Timer timer_;
};

/// False for what a device takes without a word: "restart", and what is no record at all.
[[nodiscard]] bool isAnswered(const std::string& payload);

}  // namespace zell::ctl

#endif  // ZELL_RUNELCTL_MASTER_SLAVE_LINK_H_
