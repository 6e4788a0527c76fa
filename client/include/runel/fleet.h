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
  /// "1,10%,rest". The devices that remain are a further wave. A wave starts when the one before
  /// has ended. Fails with `Kind::local` for malformed text. One wave by default.
  [[nodiscard]] Result<void> setWaves(const std::string& waves);
  /// No further wave starts when more than this number of @p devices have failed; 0 by default.
  FleetOptions& setMaxFailures(std::size_t devices);
  /// Starts no further device after the first failure; off by default.
  FleetOptions& setFailFast(bool on);
  /// The limit for each attempt of each device. Unlimited by default.
  FleetOptions& setDeadline(std::optional<Milliseconds> time);
  /// The timeouts and retries of each device.
  FleetOptions& setDevice(const DeviceOptions& options);
  ///@{
  /// For the device at @p index of the list that the fleet is given, instead of the values for all.
  FleetOptions& setDevice(std::size_t index, const DeviceOptions& options);
  FleetOptions& setDeadline(std::size_t index, std::optional<Milliseconds> time);
  ///@}

 private:
  friend class FleetWork;
  struct RUNEL_LOCAL Data;
  std::unique_ptr<Data> data_;
};

/// The result of one device: its reply, or the error of its last attempt.
struct FleetResult {
  std::string name;       ///< of its address
  Result<Reply> reply;    ///< of the last attempt
  int attempts = 0;       ///< 1 without a retry, 0 for a malformed address
  std::size_t index = 0;  ///< of the device in the list that the fleet was given
};

/// The results of a fleet. Copies are cheap.
class RUNEL_API FleetReport {
 public:
  /// True if all devices have succeeded.
  [[nodiscard]] bool ok() const;
  /// In the order of their ends.
  [[nodiscard]] const std::vector<FleetResult>& results() const;
  /// The names of the failed devices, in the order of the fleet.
  [[nodiscard]] std::vector<std::string> failed() const;
  /// The devices on which nothing was started, because too many had failed before, or because the
  /// fleet was cancelled.
  [[nodiscard]] const std::vector<std::string>& skipped() const;

 private:
  friend class FleetWork;
  struct RUNEL_LOCAL Data;
  RUNEL_LOCAL explicit FleetReport(std::shared_ptr<const Data> data);
  std::shared_ptr<const Data> data_;
};

/// Ends the job of one device, with its reply or an error. Call it once: later calls, and those
/// after the end of the attempt, are ignored.
using FleetFinish = std::function<void(Result<Reply> result)>;

/// One attempt on one device.
struct FleetAttempt {
  AsyncDevice& device;  ///< lives until the job of this attempt is destroyed
  std::size_t index;    ///< of the device in the list that the fleet was given
  int number;           ///< 1 for the first attempt
  FleetFinish finish;   ///< ends this attempt
};

/// A job that keeps a state while it works on a device. The fleet creates an object for each
/// attempt, and destroys it before the device when the attempt ends, is cancelled, or exceeds its
/// deadline. No handler of the device is called afterwards.
class RUNEL_API FleetJob {
 public:
  FleetJob();
  virtual ~FleetJob();
  FleetJob(const FleetJob&) = delete;
  FleetJob& operator=(const FleetJob&) = delete;

  /// Sends the first requests.
  virtual void start() = 0;

  /// A request that removes what the failed attempt left on the device. It is sent on a separate
  /// connection with a timeout of 3 s, unless a further attempt follows. An "unlink" is repeated
  /// until the file stays absent, because the device may still execute requests of the lost
  /// connection. By default no request.
  [[nodiscard]] virtual std::optional<Request> cleanUp() const;

  /// Whether a further attempt may follow the failure @p error. @p safe is false if a request of
  /// this attempt has run or may have run and is not `Request::repeatable`. By default true for a
  /// transient failure of the link, if it is @p safe. Called once for each failed attempt, before
  /// `cleanUp`; also when there are no retries left.
  [[nodiscard]] virtual bool mayRepeat(const Error& error, bool safe) const;
};

/// Runs one job on each device of a list.
///
/// After a transient failure of the link a job is started again, as `DeviceOptions::setRetries`
/// says, but only if no request of the failed attempt would be repeated that must not be: one that
/// has run or may have run and is not `Request::repeatable`.
class RUNEL_API AsyncFleet {
 public:
  /// Ends the job of one device.
  using Finish = FleetFinish;
  /// Starts the job on @p device, which lives until `Finish` is called, its deadline, or `cancel`.
  using Job = std::function<void(AsyncDevice& device, Finish finish)>;
  /// Creates the job of one attempt.
  using MakeJob = std::function<std::unique_ptr<FleetJob>(FleetAttempt attempt)>;
  /// The functions that a fleet calls.
  struct Handlers {
    /// One device has ended, after its retries and its clean-up request. May be empty.
    std::function<void(const FleetResult& result)> finished;
    /// All devices have ended. May destroy the fleet.
    std::function<void(FleetReport report)> done;
    /// All devices of a wave have ended and further waves remain. @p wave is 1 for the first. Too
    /// many of the @p failed devices so far: the fleet is @p stopped. May be empty.
    std::function<void(std::size_t wave, std::size_t failed, bool stopped)> waveEnded;
  };

  /// The loop must outlive the fleet. Devices that stand twice in @p devices are served once.
  AsyncFleet(Loop& loop, std::vector<Address> devices, const FleetOptions& options);
  /// Ends all jobs and calls no handler.
  ~AsyncFleet();
  AsyncFleet(const AsyncFleet&) = delete;
  AsyncFleet& operator=(const AsyncFleet&) = delete;

  /// Uses the open @p device for its address, instead of a new connection. It must outlive the
  /// fleet. Call it before `run`.
  void lend(AsyncDevice& device);

  /// Starts the work. Once for each fleet.
  void run(Job job, Handlers handlers);
  /// Starts the work with jobs that keep a state.
  void run(MakeJob make, Handlers handlers);
  /// Sends the same request to all. A failed task makes its device fail.
  void run(const Request& request, Handlers handlers);
  /// Starts no further devices. The running ones continue, and are not repeated.
  void startNoFurther();
  /// Ends all running jobs with `Cause::cancelled` and starts no further ones. A second call ends
  /// the clean-up requests too.
  void cancel();

 private:
  struct RUNEL_LOCAL Data;
  std::unique_ptr<Data> data_;
};

/// The blocking fleet.
///
///     runel::Fleet fleet({"192.0.2.11", "192.0.2.12"});
///     for (const auto& result : fleet.run(runel::Request({"hostid"})).results()) {
///       std::cout << result.name << ": "
///                 << (result.reply ? result.reply->output() : result.reply.error().text()) <<
///                 "\n";
///     }
class RUNEL_API Fleet {
 public:
  /// Each is HOST[:PORT] or \@NAME. A malformed one fails in `run`, under its own text as name.
  /// Those that stand twice are served once.
  explicit Fleet(const std::vector<std::string>& devices,
                 const FleetOptions& options = FleetOptions());
  ~Fleet();
  ///@{
  /// Moving leaves @p other without a state: assign to it or destroy it.
  Fleet(Fleet&& other) noexcept;
  Fleet& operator=(Fleet&& other) noexcept;
  ///@}

  /// Sends the same request to all. A failed task makes its device fail. Looks up host names with
  /// the system, which may take seconds.
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
