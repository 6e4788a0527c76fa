// SPDX-License-Identifier: Apache-2.0
// The shell texts that run on the device for jobs.
#ifndef RUNEL_JOBS_JOB_SCRIPTS_H_
#define RUNEL_JOBS_JOB_SCRIPTS_H_

#include <string>

namespace runel {

/// The exit statuses of the texts below. A shell itself ends with 1, 2 or 126 and above.
enum class JobExit {
  done = 0,
  exists = 80,      ///< the directory of the job existed before
  unsafePath = 81,  ///< another user could change a directory of the path
  noDirectory = 82,
  noSpace = 83,     ///< the files of the job cannot be written
  notStarted = 84,  ///< there is no program to send a signal to
  notRunning = 85,
  missing = 86,  ///< there is no such job
  running = 87,
  noProgram = 88,  ///< the device lacks a utility that jobs need
  same = 89,       ///< an earlier request with the same token has done it
};

/// Each is for `sh -c`, in POSIX shell and with POSIX utilities. The arguments follow as $1, $2...
/// A failure is one line on standard output and an exit status of `JobExit`.
///@{
/// Makes the directory of a job and starts its program, which continues after the end of the text.
/// MODE TOP ID LIMIT SEGMENT SECONDS PREFIX DAYS DIRECTORY TEXT TOKEN PROGRAM ARG...
[[nodiscard]] const std::string& startScript();
/// Prints the job ID, or all jobs without an ID. TOP [ID]
[[nodiscard]] const std::string& showScript();
/// Sends a signal to the program. TOP ID NAME
[[nodiscard]] const std::string& signalScript();
/// Removes a job that does not run. TOP ID
[[nodiscard]] const std::string& removeScript();
///@}

}  // namespace runel

#endif  // RUNEL_JOBS_JOB_SCRIPTS_H_
