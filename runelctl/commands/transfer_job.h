// SPDX-License-Identifier: Apache-2.0
// The common part of sending and fetching files.
#ifndef RUNELCTL_COMMANDS_TRANSFER_JOB_H_
#define RUNELCTL_COMMANDS_TRANSFER_JOB_H_

#include <cstdint>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "commands/job.h"
#include "commands/pipeline.h"

namespace runelctl {

/// The block size of dd for the pieces of a large file.
constexpr std::size_t kPieceBlock = 65536;

/// Runs stages of pipelined requests, and records progress and the first error.
class TransferJob : public Job {
 public:
  using Job::Job;

 protected:
  /// Sends the requests of @p source, then calls @p next, unless the connection is lost.
  void pipe(Pipeline::Source source, std::function<void()> next);
  /// Runs programs in the same way. A failure is reported as "@p what: reason", once for each
  /// reason, and makes the exit status 1. With an empty @p what it is not reported.
  void runPrograms(std::vector<ProgramRuns> runs, const std::string& what,
                   std::function<void()> next);
  /// Returns false when the connection is lost. The job has ended then.
  bool alive(const runel::Reply& reply);
  /// Records @p error: the first one is the outcome of the job, the others are reported as
  /// warnings.
  void failed(const Error& error);
  /// Reports a warning, unless it was reported before, and makes the exit status 1.
  void warnOnce(const std::string& what);
  /// Adds @p bytes to the progress and to the transferred bytes.
  void count(std::uint64_t bytes, const std::string& name);
  /// Adds @p bytes to the progress only.
  void skip(std::uint64_t bytes, const std::string& name);
  void expect(std::uint64_t bytes) { allBytes_ += bytes; }
  void fileDone() { ++files_; }
  void endTransfer();

  /// Whether a program has failed since the previous call.
  bool programFailed();
  /// The size of a piece of a large file: whole blocks of 64 KiB, because dd skips whole blocks.
  [[nodiscard]] std::size_t pieceBytes() const {
    return settings().memoryShare() / 2 / kPieceBlock * kPieceBlock;
  }

 private:
  std::unique_ptr<Pipeline> pipeline_;
  std::set<std::string> warned_;
  Outcome outcome_;
  bool programFailed_ = false;
  std::size_t files_ = 0;
  std::uint64_t bytes_ = 0;
  std::uint64_t progressed_ = 0;
  std::uint64_t allBytes_ = 0;
};

/// Why a program on the device failed, in one line: the first line of its output, if any.
[[nodiscard]] std::string programTrouble(const std::string& program, const runel::Reply& reply);

}  // namespace runelctl

#endif  // RUNELCTL_COMMANDS_TRANSFER_JOB_H_
