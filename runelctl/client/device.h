// SPDX-License-Identifier: Apache-2.0
// A device to ask things of: connects when there is something to ask, pipelines, gives up in time.
#ifndef ZELL_RUNELCTL_CLIENT_DEVICE_H_
#define ZELL_RUNELCTL_CLIENT_DEVICE_H_

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "client/address.h"
#include "client/channel.h"
#include "client/connector.h"
#include "client/loop.h"
#include "client/request.h"

namespace zell::ctl {

/// How long a device may take.
struct Limits {
  Milliseconds connect{10000};
  /// Without a byte in or out while an answer is due.
  Milliseconds silence{30000};
  /// Where the master's control socket is, for devices behind one.
  std::string masterSocket;
};

/// One device. Requests may be given at any time: they go out at once, one behind the other, and
/// are answered in their order. When the connection is lost, all that are unanswered fail, and the
/// next request makes a new connection.
class Device {
 public:
  /// Sees each request's text form in place of the device, which then never answers.
  using DryRun = std::function<void(const Target& target, const std::string& payload)>;

  /// The loop outlives the device.
  Device(Loop& loop, Target target, Limits limits);
  ~Device();
  Device(const Device&) = delete;
  Device& operator=(const Device&) = delete;

  /// Calls @p handler with what came of it, never before this returns. A request that is not
  /// answered counts as done when it has gone out.
  void ask(const Request& request, ReplyHandler handler);
  /// The same for a payload of any kind. @p like has its limits.
  void askRaw(std::string payload, const Request& like, ReplyHandler handler);

  /// Ends the connection. Requests without an answer fail with @p why.
  void close(const Error& why);
  /// Forgets the connection and all handlers.
  void abandon();

  void setDryRun(DryRun dryRun) { dryRun_ = std::move(dryRun); }
  /// Called with each answer's text form as it comes. For those who want to see the bytes.
  void setTap(std::function<void(const std::string& payload)> tap) { tap_ = std::move(tap); }

  [[nodiscard]] const Target& target() const { return target_; }
  [[nodiscard]] const Limits& limits() const { return limits_; }
  /// Requests without an answer, and bytes of requests that have not gone out.
  [[nodiscard]] std::size_t waiting() const { return pending_.size(); }
  [[nodiscard]] std::size_t queued() const { return channel_ ? channel_->queued() : 0; }

 private:
  struct Pending {
    ReplyHandler handler;
    std::size_t replyLimit;
    std::optional<Milliseconds> extraPatience;
    bool answered;
    std::uint64_t end = 0;  ///< where its frame ends in all that was queued
  };

  void connect();
  void connected(UniqueFd socket);
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
  std::deque<std::string> early_;  // payloads that wait for the connection
  std::deque<Pending> pending_;
  std::optional<Error> disorder_;  // what an idle device did that it must not
  Clock::time_point lastProgress_;
  Loop::Timer silence_;
  DryRun dryRun_;
  std::function<void(const std::string&)> tap_;
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

}  // namespace zell::ctl

#endif  // ZELL_RUNELCTL_CLIENT_DEVICE_H_
