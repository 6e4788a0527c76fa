// SPDX-License-Identifier: Apache-2.0
// Parses what a device tells about its jobs. Performs no I/O.
#ifndef RUNEL_JOBS_JOB_FILES_H_
#define RUNEL_JOBS_JOB_FILES_H_

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace runel {

enum class JobPhase {
  none,         ///< there is no such job
  claimed,      ///< its directory exists; the program never ran
  running,      ///< the program runs
  ended,        ///< the program has ended, and its exit status is known
  interrupted,  ///< the device was rebooted, or the wrapper was killed: no exit status will come
};

/// The file "started".
struct JobStarted {
  std::string boot;           ///< the boot id of the device
  std::uint64_t pid = 0;      ///< the wrapper
  std::uint64_t group = 0;    ///< the process group of the program
  std::uint64_t begin = 0;    ///< start time of the wrapper, as in /proc/PID/stat
  std::uint64_t limit = 0;    ///< of each stream on the device, in bytes
  std::uint64_t segment = 0;  ///< size of a segment in bytes, at least 1
  std::int64_t time = 0;      ///< when it was started, in seconds since 1970; 0 if unknown

  /// The same wrapper.
  [[nodiscard]] bool operator==(const JobStarted& other) const {
    return boot == other.boot && pid == other.pid && begin == other.begin;
  }
};

/// The file "status".
struct JobStatus {
  int code = 0;       ///< exit status, or 128 and the number of the signal
  bool late = false;  ///< the program was stopped at its time limit
  std::uint64_t lost[2] = {0,
                           0};  ///< bytes of standard output and of standard error that did not fit
  std::int64_t time = 0;        ///< when it ended, in seconds since 1970; 0 if unknown
};

/// One job, as the device tells it.
struct JobRecord {
  std::string id;
  std::optional<JobStarted> started;
  std::optional<JobStatus> status;
  bool alive = false;   ///< the wrapper runs
  std::string command;  ///< for users; may contain any bytes but a newline

  [[nodiscard]] JobPhase phase() const;
};

/// Each returns nothing for malformed text. Trailing blanks are allowed.
///@{
/// The output of `showScript`.
[[nodiscard]] std::optional<std::vector<JobRecord>> parseJobs(std::string_view text);
/// The content of "status".
[[nodiscard]] std::optional<JobStatus> parseJobStatus(std::string_view text);
/// The start time in the content of /proc/PID/stat; nothing also for a process that has ended.
[[nodiscard]] std::optional<std::uint64_t> parseProcessStart(std::string_view text);
/// The number of the segment @p name of @p stream, such as "out.12".
[[nodiscard]] std::optional<std::uint64_t> parseSegmentName(std::string_view name,
                                                            std::string_view stream);
///@}

/// Whether @p id is 1 to 100 letters, digits, '.', '_' and '-', and begins with none of the latter.
[[nodiscard]] bool isJobId(std::string_view id);
/// Whether @p path is absolute, without empty components, "." and "..".
[[nodiscard]] bool isJobDirectory(std::string_view path);

}  // namespace runel

#endif  // RUNEL_JOBS_JOB_FILES_H_
