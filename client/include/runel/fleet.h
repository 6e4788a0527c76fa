// SPDX-License-Identifier: Apache-2.0
// One command on many devices: concurrency, waves, limits, retries, failures by name.
#ifndef RUNEL_FLEET_H_
#define RUNEL_FLEET_H_

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <runel/address.h>
#include <runel/async_device.h>
#include <runel/error.h>
#include <runel/export.h>
#include <runel/loop.h>
#include <runel/request.h>
#include <runel/result.h>

namespace runel {
inline namespace v1 {

/// How a fleet goes about its work.
class RUNEL_API FleetOptions {
 public:
  FleetOptions();
  ///@{
  /// A copy with its own settings.
  FleetOptions(const FleetOptions& other);
  FleetOptions& operator=(const FleetOptions& other);
  ///@}
  ~FleetOptions();

  /// The number of devices in parallel, 32 by default, at least 1.
  FleetOptions& setParallel(std::size_t devices);
  /// Sizes of waves, a comma-separated list of numbers, percentages and "rest", such as
  /// "1,10%,rest". Each starts when the one before has ended. Fails with `Kind::local`.
  [[nodiscard]] Result<void> setWaves(const std::string& waves);
  /// The number of failed devices after which no further wave starts; 0 by default.
  FleetOptions& setMaxFailures(std::size_t devices);
  /// Starts no further device after the first failure; off by default.
  FleetOptions& setFailFast(bool on);
  /// The limit for each attempt of each device. Unlimited by default.
  FleetOptions& setDeadline(std::optional<Milliseconds> time);
  /// The timeouts and retries of each device.
  FleetOptions& setDevice(const DeviceOptions& options);

 private:
  friend class FleetWork;
  struct RUNEL_LOCAL Data;
  std::unique_ptr<Data> data_;
};

/// The result of one device: its reply, or the error of its job.
struct FleetResult {
  std::string name;     ///< of its address
  Result<Reply> reply;  ///< of the last attempt
  int attempts = 0;     ///< 1 without a retry
};

/// The results of a fleet.
class RUNEL_API FleetReport {
 public:
  /// True if all devices have succeeded.
  [[nodiscard]] bool ok() const;
  /// In the order of their ends.
  [[nodiscard]] const std::vector<FleetResult>& results() const;
  /// The names of the failed devices, in the order of the fleet.
  [[nodiscard]] std::vector<std::string> failed() const;
  /// The devices on which nothing was started, because too many had failed before.
  [[nodiscard]] const std::vector<std::string>& skipped() const;

 private:
  friend class FleetWork;
  struct RUNEL_LOCAL Data;
  RUNEL_LOCAL explicit FleetReport(std::shared_ptr<const Data> data);
  std::shared_ptr<const Data> data_;
};

/// Runs one job on each device of a list.
class RUNEL_API AsyncFleet {
 public:
  /// Ends the job of one device, with its reply or an error. Call it once.
  using Finish = std::function<void(Result<Reply> result)>;
  /// Starts the job on @p device, which lives until `Finish` is called, its deadline, or `cancel`.
  using Job = std::function<void(AsyncDevice& device, Finish finish)>;
  /// The functions that a fleet calls.
  struct Handlers {
    /// One device has ended, after its retries. May be empty.
    std::function<void(const FleetResult& result)> finished;
    /// All devices have ended. May destroy the fleet.
    std::function<void(FleetReport report)> done;
  };

  /// The loop must outlive the fleet. Devices that stand twice in @p devices are served once.
  AsyncFleet(Loop& loop, std::vector<Address> devices, const FleetOptions& options);
  ~AsyncFleet();
  AsyncFleet(const AsyncFleet&) = delete;
  AsyncFleet& operator=(const AsyncFleet&) = delete;

  /// Starts the work. Once for each fleet.
  void run(Job job, Handlers handlers);
  /// Sends the same request to all.
  void run(const Request& request, Handlers handlers);
  /// Ends all running jobs with `Cause::cancelled` and starts no further ones.
  void cancel();

 private:
  struct RUNEL_LOCAL Data;
  std::unique_ptr<Data> data_;
};

/// The blocking fleet.
class RUNEL_API Fleet {
 public:
  /// Each is HOST[:PORT] or \@NAME. A malformed one fails in `run`, under its own text as name.
  explicit Fleet(const std::vector<std::string>& devices,
                 const FleetOptions& options = FleetOptions());
  ~Fleet();
  ///@{
  /// Moving leaves @p other without a state: assign to it or destroy it.
  Fleet(Fleet&& other) noexcept;
  Fleet& operator=(Fleet&& other) noexcept;
  ///@}

  /// Sends the same request to all. A failed task makes its device fail.
  [[nodiscard]] FleetReport run(const Request& request);
  /// Runs any job on each.
  [[nodiscard]] FleetReport run(const AsyncFleet::Job& job);

 private:
  struct RUNEL_LOCAL Data;
  std::unique_ptr<Data> data_;
};

}  // namespace v1
}  // namespace runel

#endif  // RUNEL_FLEET_H_
