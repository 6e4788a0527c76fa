// SPDX-License-Identifier: Apache-2.0
// The task connection of a device, shared by all users of the device.
#ifndef RUNEL_MASTER_SLAVE_LINK_H_
#define RUNEL_MASTER_SLAVE_LINK_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <string>
#include <utility>

#include <runel/async_master.h>
#include <runel/error.h>
#include <runel/loop.h>
#include <runel/request.h>

#include "base/unique_fd.h"
#include "client/core/late_content.h"
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
    /// The last byte of the request is sent.
    std::function<void()> sent;
  };
  /// Where an answer of at least `least` bytes goes. The text form that is passed on is then empty.
  struct LongAnswers {
    std::function<UserRequest::Sink(std::size_t size)> make;
    std::size_t least = 0;
  };
  /// The payload of a user's request.
  struct UserPayload {
    UserPayload(std::string whole);  // NOLINT(google-explicit-constructor)
    UserPayload(OutgoingPayload late)
        : bytes(std::move(late)) {}  // NOLINT(google-explicit-constructor)

    OutgoingPayload bytes;
    bool answered = true;
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

  /// Sends any @p payload of a user and returns the number of the request.
  std::uint64_t forward(UserPayload payload, Answer answer, Ends ends, LongAnswers answers);
  /// See `MasterUser::withdraw`.
  [[nodiscard]] bool withdraw(std::uint64_t number);
  /// Sends a cheap request of the master itself, to which the timeout applies.
  void ask(const Request& request, ReplyHandler handler);
  /// Ends all requests with @p error and gives the socket away, in any state the connection
  /// is. Nothing else may be called afterwards.
  [[nodiscard]] zell::UniqueFd release(const Error& error);
  /// Checks whether the peer is alive; calls `lost` later if it is not.
  void check();

  /// Pauses or resumes reading answers, for users who read slowly.
  void setReading(bool reading);
  /// True while the backlog is so large that users must wait.
  [[nodiscard]] bool busy() const;
  /// Whether no request and no answer is on the way.
  [[nodiscard]] bool isIdle() const {
    return pending_.empty() && unanswerable_.empty() && channel_.isIdle();
  }
  [[nodiscard]] std::size_t waiting() const { return pending_.size(); }
  [[nodiscard]] const Counters& counters() const { return counters_; }

 private:
  struct Pending {
    Answer answer;
    Ends ends;
    bool own;
    LongAnswers answers{};
    std::uint64_t number = 0;
    std::uint64_t begin = 0;  ///< of its frame, as an offset in all queued bytes
    std::uint64_t end = 0;    ///< of its frame
    std::size_t size = 0;     ///< of its payload
    std::shared_ptr<const UserRequest::Sink> sink{};  ///< receives its answer
  };
  using Requests = std::list<Pending>;

  std::uint64_t send(UserPayload payload, Pending pending);
  [[nodiscard]] static Requests::iterator find(Requests& requests, std::uint64_t number);
  [[nodiscard]] bool withdraw(Requests& requests, Requests::iterator request);
  void drop(Requests& requests, Requests::iterator request);
  void tellSent(Pending& pending);
  [[nodiscard]] std::unique_ptr<PayloadStore> store(std::size_t length);
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
  Requests pending_;       // lists: they need no memory while the device is idle
  Requests unanswerable_;  // requests without an answer that are not sent yet
  Requests::iterator unsent_ = pending_.end();  // the first of pending_ that is not wholly sent
  std::uint64_t lastNumber_ = 0;
  std::size_t storedAnswer_ = 0;  // the length of the answer that a sink receives
  bool storing_ = false;          // long answers go to a sink
  std::size_t users_ = 0;         // pending requests of users
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
