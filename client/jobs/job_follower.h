// SPDX-License-Identifier: Apache-2.0
// Follows a job: its output as it is written, and its end.
#ifndef RUNEL_JOBS_JOB_FOLLOWER_H_
#define RUNEL_JOBS_JOB_FOLLOWER_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "client/jobs/job_link.h"
#include "client/jobs/job_requests.h"
#include "client/jobs/segment_reader.h"

namespace runel {

/// How a job has ended.
struct JobEnd {
  JobPhase phase = JobPhase::ended;  ///< or `interrupted`, or `running` if it was not waited for
  JobStatus status;                  ///< for `ended`
  std::uint64_t gone[2] = {0, 0};    ///< bytes of each stream that another reader has removed
};

/// What a follower does.
struct JobFollow {
  bool output = true;          ///< fetch the output; false: only wait for the end
  bool wait = true;            ///< continue until the job ends; false: end with what is there now
  bool makeRoom = true;        ///< remove fetched output when half of its limit is used
  bool started = false;        ///< the caller has just started the job: it appears soon
  Milliseconds limit{600000};  ///< give up when no answer has come for this time
};

/// Looks at the files of a job, at intervals of 50 ms to 1 s: short when there was something new,
/// longer when the device takes long to answer. Output is passed on when its answer is complete, so
/// a lost connection neither loses nor repeats a byte.
class JobFollower {
 public:
  struct Handlers {
    /// New bytes of @p stream: 0 for standard output, 1 for standard error.
    std::function<void(std::size_t stream, std::string_view bytes)> output;
    /// The job has ended, and its output is complete. Called once, unless `failed` is.
    std::function<void(const JobEnd& end)> done;
    /// The job cannot be followed any more.
    std::function<void(const Error& error)> failed;
    /// The connection was lost, and will be tried again. May be empty.
    std::function<void(const Error& error)> lost;
  };

  /// @p device outlives this object.
  JobFollower(AsyncDevice& device, JobPlace place, const JobFollow& follow, Handlers handlers);
  JobFollower(const JobFollower&) = delete;
  JobFollower& operator=(const JobFollower&) = delete;

  /// Sends the first request.
  void start() { look(); }
  /// Sends the signal @p name to the program, if it runs: see `signalJob`. After a lost connection,
  /// sends the last signal when there is a new one. Calls @p answered with what has become of it,
  /// unless the connection is lost then.
  void signal(const std::string& name, std::function<void(JobAnswer answer)> answered);
  /// How much of each stream was fetched, in bytes.
  [[nodiscard]] std::uint64_t fetched(std::size_t stream) const { return fetched_[stream]; }
  /// From one look to the next, if the device answers quickly.
  [[nodiscard]] Milliseconds pause() const { return pause_; }

 private:
  void look();
  void looked(const Reply& reply);
  void findSegments();
  void poll();
  void polled();
  void read(std::size_t reader);
  void settle();
  void again(bool atOnce);
  void finish(JobPhase phase);
  void fail(const Error& error);

  const JobPlace place_;
  const JobFollow follow_;
  const Handlers handlers_;
  std::vector<std::unique_ptr<SegmentReader>> readers_;
  std::optional<JobStarted> started_;
  JobEnd end_;
  std::optional<JobStatus> status_;  // as the last poll found it
  bool alive_ = false;               // as the last poll found it
  bool moved_ = false;               // the last poll has brought something new
  int looks_ = 0;
  std::uint64_t fetched_[2] = {0, 0};
  std::function<void()> sendSignal_;  // when there is a connection
  Clock::time_point began_;           // of the last poll
  Milliseconds pause_{0};
  JobLink link_;  // last: its handlers use the others
};

}  // namespace runel

#endif  // RUNEL_JOBS_JOB_FOLLOWER_H_
