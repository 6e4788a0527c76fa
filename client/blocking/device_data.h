// SPDX-License-Identifier: Apache-2.0
// The members of the blocking device.
#ifndef RUNEL_BLOCKING_DEVICE_DATA_H_
#define RUNEL_BLOCKING_DEVICE_DATA_H_

#include <functional>
#include <initializer_list>
#include <memory>

#include <runel/device.h>
#include <runel/loop.h>

namespace runel {
inline namespace v1 {

struct Device::Data {
  Data(Result<Address> itsAddress, DeviceOptions itsOptions);

  /// Runs the loop until @p done.
  void runUntil(const bool& done);
  /// Runs the loop until @p done, at most for @p time. Returns @p done.
  bool runFor(Milliseconds time, const bool& done);
  /// The reply to one attempt.
  [[nodiscard]] Reply askOnce(const Request& request);
  /// The reply, after retries. Fails if there is no reply.
  [[nodiscard]] Result<Reply> ask(const Request& request);
  /// The reply of a task that has succeeded.
  [[nodiscard]] Result<Reply> check(const Request& request);
  /// Whether a task has succeeded. False for failures with the errno values @p negative.
  [[nodiscard]] Result<bool> flag(const Request& request, std::initializer_list<int> negative);

  /// Starts a transfer and returns its report when it has ended.
  using Start = std::function<std::unique_ptr<AsyncTransfer>(AsyncTransfer::Done done)>;
  [[nodiscard]] Result<TransferReport> transfer(const Start& start);

  Loop loop;
  Result<Address> address;
  DeviceOptions options;
  AsyncDevice engine;
};

}  // namespace v1
}  // namespace runel

#endif  // RUNEL_BLOCKING_DEVICE_DATA_H_
