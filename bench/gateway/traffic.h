// SPDX-License-Identifier: Apache-2.0
// What is asked of devices, and how long the answers take.
#ifndef BENCH_GATEWAY_TRAFFIC_H_
#define BENCH_GATEWAY_TRAFFIC_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include <runel/loop.h>

namespace runel::bench {

/// A way to the devices, which are numbered from 0.
class Way {
 public:
  /// The answer of the device @p device has arrived; @p good: it is the expected one.
  using Answered = std::function<void(std::size_t device, bool good)>;

  Way() = default;
  virtual ~Way() = default;
  Way(const Way&) = delete;
  Way& operator=(const Way&) = delete;

  /// Calls @p ready once, when each device can be asked.
  virtual void open(std::function<void()> ready, Answered answered) = 0;
  /// Asks "fileexists /". At most one request of a device is under way.
  virtual void ask(std::size_t device) = 0;
};

struct Plan {
  std::size_t devices = 1;
  std::size_t slow = 0;    ///< the first devices: each is asked again as soon as it has answered
  std::size_t window = 1;  ///< requests under way to the other devices
  std::size_t requests = 1000;  ///< to the other devices
  std::size_t rate = 0;         ///< of requests to them in a second, 0: as many as possible
};

/// Asks the devices in turn, and measures.
class Traffic {
 public:
  Traffic(Loop& loop, Way& way, const Plan& plan);

  /// Stops the loop after the last answer.
  void start();
  /// One line of JSON.
  [[nodiscard]] std::string report();

 private:
  void answered(std::size_t device, bool good);
  void askSome();
  void askNext();
  void tick();

  Loop& loop_;
  Way& way_;
  const Plan plan_;
  std::vector<Clock::time_point> asked_;  // by device; the epoch: nothing is under way
  std::vector<std::uint64_t> times_;      // nanoseconds
  std::size_t next_ = 0, sent_ = 0, under_ = 0;
  std::uint64_t failed_ = 0, slowAnswers_ = 0, late_ = 0;
  Clock::time_point opened_, begin_, end_;
};

}  // namespace runel::bench

#endif  // BENCH_GATEWAY_TRAFFIC_H_
