// SPDX-License-Identifier: Apache-2.0
// The figures of the gateway as text for Prometheus. No label names a device, a token or anything
// else that clients or devices choose.
#ifndef RUNELGW_METRICS_METRICS_H_
#define RUNELGW_METRICS_METRICS_H_

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "gateway/core/outcome.h"

namespace runelgw {

/// What other parts count. Those of totals count since the start.
struct Figures {
  ///@{
  /// Devices by their state.
  std::size_t online = 0, offline = 0, waiting = 0, denied = 0, quarantined = 0;
  ///@}
  ///@{
  /// Connections of devices.
  std::size_t unidentified = 0;  ///< that wait for their turn to be identified
  std::size_t identified = 0, silent = 0, additional = 0;
  ///@}
  ///@{
  /// Requests to devices.
  std::size_t queued = 0, busyDevices = 0;
  std::uint64_t retries = 0, bytesToDevices = 0, bytesFromDevices = 0, spooledBytes = 0;
  ///@}
  ///@{
  /// What the gateway asks by itself.
  std::uint64_t inventoryRounds = 0, inventoryFailures = 0;
  ///@}
  ///@{
  /// HTTP.
  std::size_t httpConnections = 0, webSockets = 0, eventStreams = 0;
  std::uint64_t httpAccepted = 0, httpRefused = 0, httpMalformed = 0, httpBytesIn = 0,
                httpBytesOut = 0;
  ///@}
  ///@{
  /// The database.
  bool databaseConnected = false;
  std::size_t databaseQueued = 0, databaseReadsWaiting = 0;
  std::uint64_t commits = 0, changes = 0, failedWrites = 0, refusedWrites = 0, reads = 0;
  double commitSeconds = 0, readSeconds = 0;
  std::int64_t lastCommit = 0;  ///< in milliseconds since 1970
  ///@}
  ///@{
  /// Clients.
  std::size_t sessions = 0, runningOperations = 0, eventSubscribers = 0;
  ///@}
};

/// Counters and histograms of requests, and the text. Belongs to the I/O thread.
class Metrics {
 public:
  Metrics();
  ~Metrics();
  Metrics(const Metrics&) = delete;
  Metrics& operator=(const Metrics&) = delete;

  /// A request to a device has ended after @p seconds. A @p task that is not in the table of tasks
  /// counts as "other".
  void requestEnded(std::string_view task, Outcome outcome, Reason reason, double seconds);
  /// An HTTP request was answered with @p status after @p seconds. @p operation is a name of the
  /// table of routes, or "none".
  void httpEnded(std::string_view operation, unsigned status, double seconds);

  /// All metrics, in the text format 0.0.4.
  [[nodiscard]] std::string text(const Figures& figures) const;
  /// The value of Content-Type for it.
  [[nodiscard]] static const char* contentType();

 private:
  struct Data;
  std::unique_ptr<Data> data_;
};

}  // namespace runelgw

#endif  // RUNELGW_METRICS_METRICS_H_
