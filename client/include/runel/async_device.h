// SPDX-License-Identifier: Apache-2.0
// The event-driven client of one device: connects on demand, pipelines requests, enforces timeouts.
#ifndef RUNEL_ASYNC_DEVICE_H_
#define RUNEL_ASYNC_DEVICE_H_

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include <runel/address.h>
#include <runel/export.h>
#include <runel/loop.h>
#include <runel/request.h>

namespace runel {
inline namespace v1 {

/// The timeouts of a device. Copies are cheap enough to pass by value.
///
/// Two limits have different meanings. The I/O timeout is this host's: it ends the wait for an
/// answer when the connection is silent. The limit of a program is the device's: it ends the
/// program. An "exec" without a limit and a "wait" have no I/O timeout, because the device answers
/// no client meanwhile; only a lost connection ends them, and a device that acknowledges no data
/// for 60 s. An "exec" with a limit adds its limit to the I/O timeout.
class RUNEL_API DeviceOptions {
 public:
  DeviceOptions();
  ///@{
  /// A copy with its own settings.
  DeviceOptions(const DeviceOptions& other);
  DeviceOptions& operator=(const DeviceOptions& other);
  ///@}
  ~DeviceOptions();

  /// The limit for connecting, 10 s by default.
  DeviceOptions& setConnectTimeout(Milliseconds time);
  /// The I/O timeout: the longest time without a byte sent or received while an answer is due; 30 s
  /// by default. The daemon serves its connections one after the other, so it must cover the
  /// requests of other clients.
  DeviceOptions& setIoTimeout(Milliseconds time);
  /// The same as `setIoTimeout`.
  DeviceOptions& setTimeout(Milliseconds time);
  /// The limit of a program that `Device::exec` runs without a limit: the device stops it when it
  /// takes longer. 0 s, the default, is no limit. A `Request` has its own limit, see
  /// `Request::exec`.
  DeviceOptions& setProgramLimit(std::chrono::seconds limit);
  /// The path of the control socket of a running `runelctl master`, for devices behind it.
  DeviceOptions& setMasterSocket(std::string path);
  /// How often a request that was not sent, or is safe to repeat, is tried again after a transient
  /// failure of the link, and the pause before the first repetition, which doubles each time
  /// up to 30 s. 0 times by default. Used by `Device` and `Fleet`; an `AsyncDevice` never repeats.
  DeviceOptions& setRetries(int times, Milliseconds pause = Milliseconds(200));

  ///@{
  /// The current setting.
  [[nodiscard]] Milliseconds connectTimeout() const;
  [[nodiscard]] Milliseconds ioTimeout() const;
  [[nodiscard]] Milliseconds timeout() const;
  [[nodiscard]] std::chrono::seconds programLimit() const;
  [[nodiscard]] const std::string& masterSocket() const;
  [[nodiscard]] int retries() const;
  [[nodiscard]] Milliseconds retryPause() const;
  ///@}

 private:
  friend class DeviceDialer;
  friend class DeviceSpool;
  struct RUNEL_LOCAL Data;
  std::unique_ptr<Data> data_;
};

/// One device on a loop. Requests may be added at any time: they are sent immediately and answered
/// in order. When the connection is lost, all pending requests fail, each with its outcome, and the
/// next request opens a new connection. Nothing is repeated.
class RUNEL_API AsyncDevice {
 public:
  /// The loop must outlive the device.
  AsyncDevice(Loop& loop, Address address, DeviceOptions options = DeviceOptions());
  /// The device at the other end of @p socket, which it connected itself. Takes ownership of the
  /// connected @p socket and makes it non-blocking. When the connection is lost, every later
  /// request fails.
  AsyncDevice(Loop& loop, int socket, std::string name, DeviceOptions options = DeviceOptions());
  /// Drops all handlers without calling them.
  ~AsyncDevice();
  AsyncDevice(const AsyncDevice&) = delete;
  AsyncDevice& operator=(const AsyncDevice&) = delete;

  /// Sends @p request and calls @p handler with the reply. A request without a reply is complete
  /// when it is sent.
  void ask(const Request& request, ReplyHandler handler);
  /// Sends any @p payload as one frame. @p like gives the limits of the answer.
  void askRaw(std::string payload, const Request& like, ReplyHandler handler);

  /// Closes the connection. Pending requests fail with @p why.
  void close(const Error& why);
  /// Closes the connection and drops all handlers without calling them.
  void abandon();

  /// Calls @p closed when an open connection has ended, also without a pending request. The next
  /// request connects again.
  void setClosed(std::function<void(const Error& why)> closed);

  /// Receives payloads as they are sent or received.
  using Tap = std::function<void(const std::string& payload)>;
  /// Gives every payload to @p dryRun instead of the device. No reply handler is called then.
  void setDryRun(Tap dryRun);
  /// Calls @p tap with each received payload.
  void setTap(Tap tap);

  ///@{
  /// As given to the constructor.
  [[nodiscard]] const Address& address() const;
  [[nodiscard]] const DeviceOptions& options() const;
  [[nodiscard]] Loop& loop() const;
  ///@}
  /// The number of requests whose handlers have not been called.
  [[nodiscard]] std::size_t pending() const;
  /// The number of bytes that are not sent yet.
  [[nodiscard]] std::size_t queued() const;
  /// The number of requests ever that were sent as a whole.
  [[nodiscard]] std::size_t sent() const;
  /// The number of requests ever that ran, or may have run, and are not `Request::repeatable`: a
  /// caller that repeats a sequence of requests must not do so when this number has grown. All
  /// requests of `askRaw` count as not repeatable.
  [[nodiscard]] std::size_t unrepeatable() const;
  /// The number of those requests without a reply: it is unknown whether they ran. A pending
  /// request counts as soon as it is sent.
  [[nodiscard]] std::size_t inDoubt() const;

  /// The time since the last byte was sent or received, while an answer is due; 0 otherwise.
  [[nodiscard]] Milliseconds silence() const;
  /// Whether the device's system acknowledges what is sent: a silent device is then busy and not
  /// lost. Also true when it is unknown, such as behind a master.
  [[nodiscard]] bool acknowledges() const;
  /// The oldest of the pending requests that are sent and may take any time.
  [[nodiscard]] std::optional<LongTask> longTask() const;

 private:
  struct RUNEL_LOCAL Data;
  std::unique_ptr<Data> data_;
};

}  // namespace v1
}  // namespace runel

#endif  // RUNEL_ASYNC_DEVICE_H_
