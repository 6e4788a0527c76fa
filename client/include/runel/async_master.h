// SPDX-License-Identifier: Apache-2.0
// The event-driven master: the port that devices connect to, and the role of each connection.
#ifndef RUNEL_ASYNC_MASTER_H_
#define RUNEL_ASYNC_MASTER_H_

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <runel/events.h>
#include <runel/export.h>
#include <runel/loop.h>
#include <runel/request.h>
#include <runel/result.h>

namespace runel {
inline namespace v1 {

/// Who may connect to a master, and how it treats connections.
class RUNEL_API MasterOptions {
 public:
  MasterOptions();
  ///@{
  /// A copy with its own settings.
  MasterOptions(const MasterOptions& other);
  MasterOptions& operator=(const MasterOptions& other);
  ///@}
  ~MasterOptions();

  /// The listening address, 127.0.0.1:5112 by default. Port 0 lets the system choose.
  MasterOptions& setListen(std::string host, std::uint16_t port);
  /// Allows only these networks, a comma-separated list of ADDRESS and ADDRESS/BITS. Fails with
  /// `Kind::local`.
  [[nodiscard]] Result<void> allowAddresses(const std::string& list);
  /// Allows only these host identifiers, a comma-separated list. Fails with `Kind::local`.
  [[nodiscard]] Result<void> allowHostids(const std::string& list);
  /// For several devices at one address, behind a router: a connection that is silent for this long
  /// is used as the task connection of another device. By default each address is one device.
  MasterOptions& setShared(std::optional<Milliseconds> silence);
  /// The limit for the answer to a cheap task of the master's own, 30 s by default.
  MasterOptions& setTimeout(Milliseconds time);

 private:
  friend class MasterWork;
  struct RUNEL_LOCAL Data;
  std::unique_ptr<Data> data_;
};

/// What a master knows of one connected device. Times are wall clock times in milliseconds since
/// 1970.
class RUNEL_API DeviceInfo {
 public:
  /// Its name at this master, as in its events.
  [[nodiscard]] const std::string& name() const;
  /// Its host identifier.
  [[nodiscard]] const std::string& hostid() const;
  /// "controller", "server" or "unknown".
  [[nodiscard]] const std::string& deviceType() const;
  ///@{
  /// The IPv4 address and the port at the other end of its task connection.
  [[nodiscard]] const std::string& host() const;
  [[nodiscard]] std::uint16_t port() const;
  ///@}
  /// When its task connection was accepted.
  [[nodiscard]] std::int64_t connectedSince() const;
  /// When this master saw the device for the first time.
  [[nodiscard]] std::int64_t firstSeen() const;
  ///@{
  /// How often it connected, and how often its task connection was lost.
  [[nodiscard]] std::uint64_t connects() const;
  [[nodiscard]] std::uint64_t losses() const;
  ///@}
  [[nodiscard]] std::int64_t lastLoss() const;  ///< 0 before the first loss
  /// Empty before the first loss.
  [[nodiscard]] const std::string& lastLossReason() const;
  /// The number of requests that were sent to it.
  [[nodiscard]] std::uint64_t requests() const;
  [[nodiscard]] std::uint64_t bytesToDevice() const;    ///< of payloads
  [[nodiscard]] std::uint64_t bytesFromDevice() const;  ///< of payloads
  [[nodiscard]] std::size_t additional() const;         ///< further connections from its address
  [[nodiscard]] std::size_t agents() const;             ///< those of them that are bridges
  [[nodiscard]] std::uint64_t clauses() const;          ///< received on them

 private:
  friend class MasterWork;
  struct RUNEL_LOCAL Data;
  RUNEL_LOCAL explicit DeviceInfo(std::shared_ptr<const Data> data);
  std::shared_ptr<const Data> data_;
};

/// The port that devices connect to. A device does not tell which of its connections is which, and
/// a frame on the bridge of its agent stops its daemon: the master finds out, and writes tasks to a
/// connection only when it cannot be a bridge.
class RUNEL_API AsyncMaster {
 public:
  /// Receives each event of the master, in order.
  using Handler = std::function<void(const MasterEvent& event)>;

  /// The loop must outlive the master. @p handler may destroy the master.
  AsyncMaster(Loop& loop, const MasterOptions& options, Handler handler);
  ~AsyncMaster();
  AsyncMaster(const AsyncMaster&) = delete;
  AsyncMaster& operator=(const AsyncMaster&) = delete;

  /// Opens the port. Fails with `Kind::local`.
  [[nodiscard]] Result<void> open();
  /// The listening port.
  [[nodiscard]] std::uint16_t port() const;

  /// The connected devices that have told their identity.
  [[nodiscard]] std::vector<DeviceInfo> devices() const;
  /// The connected devices with this name, host identifier, address or ADDRESS:PORT. More than one
  /// if the name is not unique.
  [[nodiscard]] std::vector<DeviceInfo> find(const std::string& name) const;

  /// Sends @p request to the device @p name and calls @p handler with the reply. All callers of a
  /// device share its connection. Fails at once, through @p handler, when the device is not
  /// connected or the name is not unique.
  void ask(const std::string& name, const Request& request, ReplyHandler handler);
  /// Sends any @p payload and passes the answer's payload on byte for byte. An empty one, which no
  /// device sends, tells that the connection was lost.
  void forward(const std::string& name, std::string payload,
               std::function<void(std::string payload)> answer);
  /// True while so many bytes wait for the device that callers should pause.
  [[nodiscard]] bool busy(const std::string& name) const;

  /// Sends one clause to the agent of the device @p name. The agent does not acknowledge it. Fails
  /// if @p clause is not exactly one clause, and while no bridge to an agent is known: the agent's
  /// first clause identifies it.
  [[nodiscard]] Result<void> sendClause(const std::string& name, const std::string& clause);

 private:
  struct RUNEL_LOCAL Data;
  std::unique_ptr<Data> data_;
};

}  // namespace v1
}  // namespace runel

#endif  // RUNEL_ASYNC_MASTER_H_
