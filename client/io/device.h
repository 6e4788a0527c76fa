// SPDX-License-Identifier: Apache-2.0
// A client of one device: connects on demand, pipelines requests and enforces timeouts.
#ifndef RUNEL_IO_DEVICE_H_
#define RUNEL_IO_DEVICE_H_

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "client/core/address.h"
#include "client/core/request.h"
#include "client/io/channel.h"
#include "client/io/connector.h"
#include "client/io/loop.h"

namespace runel {

/// Timeouts of a device, and where its master is.
struct Limits {
  Milliseconds connect{10000};
  /// I/O timeout: the longest time without a byte sent or received while an answer is due.
  Milliseconds silence{30000};
  /// Path of the master's control socket, for devices behind a master.
  std::string masterSocket;
};

/// One device. Requests may be added at any time: they are sent immediately and answered in order.
/// When the connection is lost, all pending requests fail, and the next request opens a new
/// connection.
class Device {
 public:
  /// Receives the text form of each request instead of the device. No handler is called then.
  using DryRun = std::function<void(const Target& target, const std::string& payload)>;

  /// The loop must outlive the device.
  Device(Loop& loop, Target target, Limits limits);
  ~Device();
  Device(const Device&) = delete;
  Device& operator=(const Device&) = delete;

  /// Calls @p handler with the result, never before this call returns. A request without an answer
  /// is complete when it is sent.
  void ask(const Request& request, ReplyHandler handler);
  /// Sends any payload. @p like gives the limits of the answer.
  void askRaw(std::string payload, const Request& like, ReplyHandler handler);

  /// Closes the connection. Pending requests fail with @p why.
  void close(const Error& why);
  /// Closes the connection and drops all handlers without calling them.
  void abandon();

  void setDryRun(DryRun dryRun) { dryRun_ = std::move(dryRun); }
  /// Calls @p tap with the text form of each answer as received.
  void setTap(std::function<void(const std::string& payload)> tap) { tap_ = std::move(tap); }

  [[nodiscard]] const Target& target() const { return target_; }
  [[nodiscard]] const Limits& limits() const { return limits_; }
  /// The number of pending requests, and of bytes that are not sent yet.
  [[nodiscard]] std::size_t waiting() const { return pending_.size(); }
  [[nodiscard]] std::size_t queued() const { return channel_ ? channel_->queued() : 0; }

 private:
  struct Pending {
    ReplyHandler handler;
    std::size_t replyLimit;
    std::optional<Milliseconds> extraTimeout;
    bool answered;
    std::uint64_t end = 0;  ///< end of its frame, as an offset in all queued bytes
  };

  void connect();
  void connected(zell::UniqueFd socket);
  void ended(const Error& error);
  void send(Pending& pending, std::string&& payload);
  [[nodiscard]] bool frontIsOut() const;
  void take(std::string&& payload);
  void answer(Reply reply);
  void progress();
  void finishUnanswered();
  void watchSilence();
  void checkSilence();
  void expectFront();

  Loop& loop_;
  const Target target_;
  const Limits limits_;
  std::unique_ptr<Connector> connector_;
  std::unique_ptr<Channel> channel_;
  std::deque<std::string> early_;  // payloads queued until the connection is open
  std::deque<Pending> pending_;
  std::optional<Error> disorder_;  // protocol error of an idle device
  Clock::time_point lastProgress_;
  Loop::Timer silence_;
  DryRun dryRun_;
  std::function<void(const std::string&)> tap_;
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

}  // namespace runel

#endif  // RUNEL_IO_DEVICE_H_
