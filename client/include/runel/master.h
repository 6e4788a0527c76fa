// SPDX-License-Identifier: Apache-2.0
// The blocking master.
#ifndef RUNEL_MASTER_H_
#define RUNEL_MASTER_H_

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <runel/async_master.h>
#include <runel/events.h>
#include <runel/export.h>
#include <runel/request.h>
#include <runel/result.h>

namespace runel {
inline namespace v1 {

/// A master whose calls wait. Connections are served only within its calls: call one of them at
/// least every few seconds. Use one object in one thread at a time.
class RUNEL_API Master {
 public:
  /// Does not open the port yet.
  explicit Master(const MasterOptions& options = MasterOptions());
  /// Closes all connections.
  ~Master();
  ///@{
  /// Moving leaves @p other without a state: assign to it or destroy it.
  Master(Master&& other) noexcept;
  Master& operator=(Master&& other) noexcept;
  ///@}

  /// Opens the port. Fails with `Kind::local`.
  [[nodiscard]] Result<void> open();
  /// The listening port, 0 before `open`.
  [[nodiscard]] std::uint16_t port() const;

  /// Waits until @p count devices are connected, at most @p limit: all connected ones. Fails with
  /// `Kind::timeout`.
  [[nodiscard]] Result<std::vector<DeviceInfo>> waitForDevices(std::size_t count,
                                                               Milliseconds limit);
  /// The connected devices, as the last waiting call left them.
  [[nodiscard]] std::vector<DeviceInfo> devices() const;

  /// The unchecked reply of the device @p name to @p request. Fails when there is no reply: see
  /// `AsyncMaster::ask`.
  [[nodiscard]] Result<Reply> ask(const std::string& name, const Request& request);
  /// Sends @p request to all connected devices at once; the replies by name, in the order of
  /// `devices`.
  [[nodiscard]] std::vector<std::pair<std::string, Reply>> askAll(const Request& request);
  /// See `AsyncMaster::sendClause`. Returns when the system has taken the clause. Fails with
  /// `Kind::timeout` when that takes longer than the I/O timeout; the clause stays queued.
  [[nodiscard]] Result<void> sendClause(const std::string& name, const std::string& clause);

  /// The next event, waiting at most @p limit. Without a value when none has happened. Keeps at
  /// most 4096 unread events and drops the oldest.
  [[nodiscard]] std::optional<MasterEvent> nextEvent(Milliseconds limit);

 private:
  struct RUNEL_LOCAL Data;
  std::unique_ptr<Data> data_;
};

}  // namespace v1
}  // namespace runel

#endif  // RUNEL_MASTER_H_
