// SPDX-License-Identifier: Apache-2.0
// The kernel's counters of the resources that a process uses.
#ifndef ZELL_BENCH_LOAD_METER_H_
#define ZELL_BENCH_LOAD_METER_H_

#include <cstdint>
#include <string>
#include <vector>

#include <sys/types.h>

namespace zell::bench {

/// Reads the counters of one process. A missing process reads as zeros.
class Meter {
 public:
  explicit Meter(pid_t pid) : directory_("/proc/" + std::to_string(pid) + "/") {}

  /// Processor time, in nanoseconds.
  [[nodiscard]] std::uint64_t processorTime() const;
  /// Memory in use, in bytes.
  [[nodiscard]] std::uint64_t resident() const { return status("VmRSS:") * 1024; }
  /// The peak memory use since the last `forgetPeak`, in bytes.
  [[nodiscard]] std::uint64_t peak() const { return status("VmHWM:") * 1024; }
  /// The number of voluntary context switches.
  [[nodiscard]] std::uint64_t sleeps() const { return status("voluntary_ctxt_switches:"); }
  void forgetPeak() const;

 private:
  [[nodiscard]] std::uint64_t status(const std::string& field) const;

  std::string directory_;
};

/// Monotonic time in nanoseconds.
[[nodiscard]] std::uint64_t now();

/// The @p part percentile of @p figures, which this sorts.
[[nodiscard]] std::uint64_t percentile(std::vector<std::uint64_t>& figures, double part);

}  // namespace zell::bench

#endif  // ZELL_BENCH_LOAD_METER_H_
