// SPDX-License-Identifier: Apache-2.0
// What sending and fetching files have in common.
#ifndef ZELL_RUNELCTL_COMMANDS_TRANSFER_JOB_H_
#define ZELL_RUNELCTL_COMMANDS_TRANSFER_JOB_H_

#include <cstdint>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "commands/job.h"
#include "commands/pipeline.h"

namespace zell::ctl {

/// Stages of pipelined requests, of which single ones may fail; how far it has come; what went
/// wrong first.
class TransferJob : public Job {
 public:
  using Job::Job;

 protected:
  /// Asks what @p source has, then calls @p next, unless the connection was lost meanwhile.
  void pipe(Pipeline::Source source, std::function<void()> next);
  /// The same for programs. When one fails, people are told @p what and why, once for the same
  /// reason, and the exit status is 1; nobody is told for an empty @p what.
  void runPrograms(std::vector<ProgramRuns> runs, const std::string& what,
                   std::function<void()> next);
  /// False when the connection is lost; the job has ended then.
  bool alive(const Reply& reply);
  /// Keeps @p error: the first is the job's, the others are told as they come.
  void failed(const Error& error);
  void notKept(const std::string& what);
  /// Counts towards the progress, and as sent or fetched.
  void count(std::uint64_t bytes, const std::string& name);
  /// Counts towards the progress alone.
  void skip(std::uint64_t bytes, const std::string& name);
  void expect(std::uint64_t bytes) { allBytes_ += bytes; }
  void fileDone() { ++files_; }
  void endTransfer();

  /// Since the last time it was asked for.
  bool programFailed();
  /// What goes in pieces is cut into such.
  [[nodiscard]] std::size_t pieceBytes() const { return settings().memoryShare() / 2; }

 private:
  std::unique_ptr<Pipeline> pipeline_;
  std::set<std::string> notKept_;
  Outcome outcome_;
  bool programFailed_ = false;
  std::size_t files_ = 0;
  std::uint64_t bytes_ = 0;
  std::uint64_t progressed_ = 0;
  std::uint64_t allBytes_ = 0;
};

/// Why a program on the device failed, in one line: the first of its own where it wrote one.
[[nodiscard]] std::string programTrouble(const std::string& program, const Reply& reply);

}  // namespace zell::ctl

#endif  // ZELL_RUNELCTL_COMMANDS_TRANSFER_JOB_H_
