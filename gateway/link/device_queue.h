// SPDX-License-Identifier: Apache-2.0
// The requests of one device that are not done.
#ifndef RUNELGW_LINK_DEVICE_QUEUE_H_
#define RUNELGW_LINK_DEVICE_QUEUE_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <optional>
#include <string>

#include <runel/async_master.h>
#include <runel/error.h>
#include <runel/loop.h>

#include "gateway/core/outcome.h"
#include "gateway/core/payload_spool.h"
#include "gateway/core/router.h"
#include "gateway/link/request_head.h"

namespace runelgw {

/// Passes requests on in order, a few at a time, and tells each caller exactly what became of it.
/// It exists only while a device has work.
class DeviceQueue {
 public:
  struct Context {
    runel::Loop& loop;
    std::shared_ptr<PayloadSpool> spool;  ///< of large answers
    runel::Milliseconds ioTimeout;
    std::size_t most;  ///< requests that may wait
  };
  struct Events {
    /// A request is done, or was cancelled: then @p done is empty.
    std::function<void(CallId id, const RequestHead& head, Router::Done done, Answer answer)> done;
    /// The queue is empty. It may be destroyed at once.
    std::function<void()> idle;
    /// A request is sent again after a loss.
    std::function<void()> retried;
  };

  DeviceQueue(Context context, Events events);
  ~DeviceQueue();
  DeviceQueue(const DeviceQueue&) = delete;
  DeviceQueue& operator=(const DeviceQueue&) = delete;

  /// The device is connected: @p attach makes a user of its connection.
  using Attach = std::function<runel::Result<std::unique_ptr<runel::MasterUser>>(
      runel::MasterUser::Handlers handlers)>;
  void connect(const Attach& attach);
  /// The connection must not be used any more. What was not answered ends, with @p reason, or waits
  /// for the next connection if it may be repeated.
  void disconnect(Reason reason, const std::string& text);
  [[nodiscard]] bool isConnected() const { return user_ != nullptr; }

  void add(CallId id, Call call, RequestHead head, Router::Done done);
  void cancel(CallId id);
  /// Ends all requests.
  void stop(Reason reason, const std::string& text);

  [[nodiscard]] bool isFull() const { return entries_.size() >= context_.most; }
  [[nodiscard]] bool isEmpty() const { return entries_.empty(); }
  [[nodiscard]] std::size_t size() const { return entries_.size(); }
  [[nodiscard]] QueueState state() const;

 private:
  struct LargeAnswer {
    std::unique_ptr<PayloadWriter> writer;
    std::string problem;  // why it cannot be kept
  };
  struct Entry {
    CallId id = 0;
    Call call;
    RequestHead head;
    Router::Done done;              // empty after the caller knows the end
    std::uint64_t number = 0;       // at the connection; 0: not passed to it
    runel::Clock::time_point turn;  // when the device could begin with it
    std::int64_t since = 0;         // the same, in milliseconds since 1970
    bool silent = false;            // the I/O timeout is over
    bool mayHaveRun = false;        // it was sent before its connection was lost
    std::shared_ptr<LargeAnswer> large;
  };
  using Entries = std::list<Entry>;

  void pump();
  [[nodiscard]] bool mayPass(const Entry& next) const;
  void pass(Entry& entry);
  [[nodiscard]] Entries::iterator find(CallId id);
  void answered(CallId id, std::string&& payload);
  void sent(CallId id);
  void failed(CallId id, const runel::Error& error);
  void lost(const runel::Error& error);
  void finish(Entries::iterator entry, Answer answer);
  void tell(Entry& entry, Answer answer);
  void endOrKeep(Entries::iterator entry, bool mayHaveRun);
  [[nodiscard]] Answer answerOf(Entry& entry, std::string&& payload) const;
  void beginTurn();
  void arm();
  void wake();
  [[nodiscard]] bool postpone(Entry& entry) const;
  void expire(Entries::iterator entry);
  void endSilence();
  [[nodiscard]] std::optional<runel::Clock::time_point> silentAt() const;
  void checkIdle();

  const Context context_;
  const Events events_;
  std::unique_ptr<runel::MasterUser> user_;
  Entries entries_;               // in order; while connected, those that were passed on come first
  Reason reason_ = Reason::lost;  // of the end of the connection
  std::string why_;
  runel::Timer timer_;
};

}  // namespace runelgw

#endif  // RUNELGW_LINK_DEVICE_QUEUE_H_
