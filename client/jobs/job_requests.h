// SPDX-License-Identifier: Apache-2.0
// The requests about jobs, and the meaning of their answers.
#ifndef RUNEL_JOBS_JOB_REQUESTS_H_
#define RUNEL_JOBS_JOB_REQUESTS_H_

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <runel/request.h>
#include <runel/result.h>

#include "client/jobs/job_files.h"

namespace runel {

constexpr char kJobsDirectory[] = "/var/lib/runel/jobs";
constexpr std::uint64_t kJobLimit = std::uint64_t{16} * 1024 * 1024;
constexpr int kJobDays = 7;

/// A job of a device. The caller chooses the ID: with the same ID, only one start succeeds.
struct JobPlace {
  std::string directory = kJobsDirectory;  ///< see `isJobDirectory`
  std::string id;                          ///< see `isJobId`

  /// The path of the job's file @p name.
  [[nodiscard]] std::string path(const std::string& name) const {
    return directory + "/" + id + "/" + name;
  }
};

/// What a job runs.
struct JobPlan {
  std::vector<std::string> words;   ///< the program and its arguments
  std::string workingDirectory;     ///< empty for that of the daemon
  std::uint64_t limit = kJobLimit;  ///< most bytes of each stream on the device
  int seconds = 0;                  ///< time limit for the program; 0 for none
  /// Names the caller, for example by a random number: a start that is repeated with the same token
  /// knows that the job is its own. Letters and digits; empty for a new random one.
  std::string token;
  /// A start also removes finished jobs whose ID begins with this, after `sweepDays`; empty for
  /// none. Choose a prefix that no other program uses.
  std::string sweepPrefix;
  int sweepDays = kJobDays;
};

/// Which part of a start a request makes.
enum class JobStart {
  whole,  ///< makes the directory and starts the program
  claim,  ///< only makes the directory; the file "in" is to be filled then
  run,    ///< starts the program of a claimed job
};

[[nodiscard]] Request startJob(const JobPlace& place, const JobPlan& plan, JobStart part);
[[nodiscard]] Request showJob(const JobPlace& place);
[[nodiscard]] Request listJobs(const std::string& directory);
/// @p name is "INT", "TERM", "HUP", "KILL", or "END" for SIGTERM and, if the program still runs 2 s
/// later, SIGKILL.
[[nodiscard]] Request signalJob(const JobPlace& place, const std::string& name);
[[nodiscard]] Request removeJob(const JobPlace& place);

/// What a request about a job has led to.
enum class JobAnswer {
  done,         ///< also when an earlier request with the same token has done it
  exists,       ///< start: another caller has made a job with this ID; nothing was started
  noDirectory,  ///< there is no directory for jobs that only root can change
  notWritten,   ///< start: its files cannot be written
  notRunning,   ///< signal: the program has ended or was never started
  noJob,        ///< there is no such job
  running,      ///< remove: the program runs
  failed,       ///< another failure
};

/// The answer in the @p reply to one of the requests above.
[[nodiscard]] JobAnswer jobAnswerOf(const Reply& reply);
/// The error of a @p reply whose answer is not `done`.
[[nodiscard]] Error jobErrorOf(const Reply& reply, const JobPlace& place);
/// The jobs in the @p reply to `showJob` or `listJobs`; empty if there is no directory for jobs.
[[nodiscard]] Result<std::vector<JobRecord>> jobsIn(const Reply& reply, const JobPlace& place);

/// A new random token.
[[nodiscard]] std::string newJobToken();

/// @p words as one line for users.
[[nodiscard]] std::string commandText(const std::vector<std::string>& words);

}  // namespace runel

#endif  // RUNEL_JOBS_JOB_REQUESTS_H_
