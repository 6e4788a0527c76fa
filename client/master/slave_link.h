// SPDX-License-Identifier: Apache-2.0
// The task connection of a device, shared by all users of the device.
#ifndef RUNEL_MASTER_SLAVE_LINK_H_
#define RUNEL_MASTER_SLAVE_LINK_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <string>

#include <runel/error.h>
#include <runel/loop.h>
#include <runel/request.h>

#include "base/unique_fd.h"
#include "client/io/channel.h"

namespace runel {

/// Sends requests in order and passes each answer to its requester. Detects a half-open connection
/// when the peer stops acknowledging data.
class SlaveLink {
 public:
  /// Called with the text form of the answer.
  using Answer = std::function<void(std::string&& payload)>;
  /// How else a user's request ends. Each may be empty.
  struct Ends {
    /// The link is lost before the answer. The outcome of @p error is that of the request.
    std::function<void(const Error& error)> failed;
    /// A payload without an answer is sent.
    std::function<void()> sent;
  };
  struct Events {
    /// The link is lost. It may be destroyed from the next turn of the loop.
    std::function<void(const Error& error)> lost;
    /// Bytes were sent or received, so `busy` may have changed. May be empty.
    std::function<void()> progress;
  };
  struct Counters {
    std::uint64_t requests = 0;
    std::uint64_t bytesOut = 0;  ///< of payloads
    std::uint64_t bytesIn = 0;
  };

  /// @p timeout is for the answer to a cheap task on an idle device.
  SlaveLink(Loop& loop, zell::UniqueFd socket, Milliseconds timeout, Events events);
  ~SlaveLink();
  SlaveLink(const SlaveLink&) = delete;
  SlaveLink& operator=(const SlaveLink&) = delete;

  /// Sends any @p payload of a user.
  void forward(std::string payload, Answer answer, Ends ends);
  /// Sends a cheap request of the master itself, to which the timeout applies.
  void ask(const Request& request, ReplyHandler handler);
  /// Checks whether the peer is alive; calls `lost` later if it is not.
  void check();

  /// Pauses or resumes reading answers, for users who read slowly.
  void setReading(bool reading);
  /// True while the backlog is so large that users must wait.
  [[nodiscard]] bool busy() const;
  [[nodiscard]] std::size_t waiting() const { return pending_.size(); }
  [[nodiscard]] const Counters& counters() const { return counters_; }

 private:
  struct Pending {
    Answer answer;
    Ends ends;
    bool own;
    std::uint64_t end = 0;  ///< end of its frame, as an offset in all queued bytes
  };

  void send(std::string payload, Pending pending);
  void take(std::string&& payload);
  void progress();
  [[nodiscard]] bool isSent(const Pending& pending) const;
  void limitAnswers();
  void watchCheck();
  [[nodiscard]] bool confirms(Milliseconds since) const;
  [[nodiscard]] bool onlyOwnWork() const;
  void lose(const Error& error);
  void failAll(const Error& error);

  Loop& loop_;
  const Milliseconds timeout_;
  Events events_;
  Channel channel_;
  std::list<Pending> pending_;       // lists: they need no memory while the device is idle
  std::list<Pending> unanswerable_;  // requests without an answer that are not sent yet
  std::size_t users_ = 0;            // pending requests of users
  Counters counters_;
  bool reading_ = true;
  std::size_t unanswered_ = 0;  // pending requests of the master
  Clock::time_point asked_;     // start time of the oldest check
  Timer timer_;
};

/// False for payloads without an answer: "restart", and text that is not a record.
[[nodiscard]] bool isAnswered(const std::string& payload);

}  // namespace runel

#endif  // RUNEL_MASTER_SLAVE_LINK_H_
