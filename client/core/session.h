// SPDX-License-Identifier: Apache-2.0
// The requests on one connection: matches replies by their order and enforces the I/O timeout.
#ifndef RUNEL_CORE_SESSION_H_
#define RUNEL_CORE_SESSION_H_

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>

#include <runel/error.h>
#include <runel/request.h>

#include "client/core/link_event.h"

namespace runel {

/// Performs no I/O, reads no clock and calls no handler: its user moves the bytes and calls the
/// handlers of completed requests.
class Session {
 public:
  using Time = std::chrono::steady_clock::time_point;
  /// A completed request. Call @p handler with @p reply.
  struct Completion {
    ReplyHandler handler;
    Reply reply;
  };

  /// @p events: the peer is behind a dialer and may tell a `LinkEvent` in place of an answer.
  /// Then also a request that has no reply is complete only with an event.
  explicit Session(Milliseconds timeout, bool events = false)
      : timeout_(timeout), events_(events) {}

  /// Adds a request. @p like gives the limits of its reply. A @p raw request may have another task
  /// than @p like and is not repeatable.
  void add(const Request& like, ReplyHandler handler, Time now, bool raw = false);
  /// The frame of the oldest request that was not queued before ends after @p end bytes of the
  /// connection.
  void queued(std::uint64_t end);
  /// Bytes were moved. In sum @p sent bytes of the connection are sent.
  void progress(std::uint64_t sent, Time now);
  /// A payload was received. An error is a violation of the protocol: close the connection with it.
  [[nodiscard]] std::optional<Error> receive(std::string&& payload, Time now);
  /// The connection has ended: all requests fail with @p why, each with its outcome.
  void fail(const Error& why);
  /// Forgets all requests, completed ones too.
  void clear();

  /// The next completed request, each once, in the order of the requests.
  [[nodiscard]] std::optional<Completion> nextCompletion();
  /// When to call `expired` at the latest.
  [[nodiscard]] std::optional<Time> deadline() const;
  /// The error when the deadline has come: close the connection with it.
  [[nodiscard]] std::optional<Error> expired(Time now) const;

  /// The number of requests that are not completed.
  [[nodiscard]] std::size_t pending() const { return pending_.size(); }
  /// The number of completed requests that `nextCompletion` has not returned.
  [[nodiscard]] std::size_t undelivered() const { return completed_.size(); }
  /// The number of requests ever that were sent as a whole.
  [[nodiscard]] std::size_t sent() const;
  /// The number of requests ever that ran, or may have run, and are not repeatable.
  [[nodiscard]] std::size_t unrepeatable() const;
  /// The number of requests ever that were sent, have no reply, and are not repeatable.
  [[nodiscard]] std::size_t inDoubt() const;
  /// The time since the last byte was moved, while a reply is due; 0 otherwise.
  [[nodiscard]] Milliseconds silence(Time now) const;
  /// The first of the sent requests that may take any time.
  [[nodiscard]] std::optional<LongTask> longTask(Time now) const;
  /// The size limit of the next reply in bytes.
  [[nodiscard]] std::size_t replyLimit() const;

 private:
  struct Pending {
    ReplyHandler handler;
    std::size_t replyLimit;
    std::optional<Milliseconds> extraTimeout;
    bool answered;
    bool repeatable;
    bool mayRunInPart;                 ///< also if the reply is EAGAIN
    std::optional<LongTask> longTask;  ///< without its time
    std::optional<std::uint64_t> end;  ///< empty until its frame is queued
  };

  [[nodiscard]] std::optional<Error> receiveEvent(const LinkEvent& event, Time now);
  [[nodiscard]] bool isSent(const Pending& pending) const;
  [[nodiscard]] std::size_t pendingInDoubt() const;
  void complete(Reply reply, Time now);
  void failOldest(const Error& why, Time now);
  void count();

  const Milliseconds timeout_;
  const bool events_;
  std::deque<Pending> pending_;
  std::deque<Completion> completed_;
  std::size_t everSent_ = 0;          // without those of pending_
  std::size_t everUnrepeatable_ = 0;  // without those of pending_
  std::size_t everInDoubt_ = 0;       // without those of pending_
  std::size_t queuedCount_ = 0;       // the first of pending_ that have an end
  std::uint64_t sent_ = 0;
  Time lastProgress_;
};

}  // namespace runel

#endif  // RUNEL_CORE_SESSION_H_
