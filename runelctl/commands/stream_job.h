// SPDX-License-Identifier: Apache-2.0
// Starts a job on the device, or finds it, and passes on its output while it runs.
#ifndef RUNELCTL_COMMANDS_STREAM_JOB_H_
#define RUNELCTL_COMMANDS_STREAM_JOB_H_

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "client/jobs/job_follower.h"
#include "client/jobs/job_starter.h"
#include "commands/job.h"
#include "commands/job_flags.h"

namespace runelctl {

/// The arguments of one command line, for all of its devices.
struct StreamPlan {
  runel::JobPlace place;
  std::optional<runel::JobPlan> start;       ///< empty: the job exists
  std::shared_ptr<const std::string> input;  ///< for a start; may be null
  runel::JobFollow follow;
  bool remove = false;  ///< remove the job when all of its output was passed on
};

/// The exit status is that of the program. The first interruption sends its signal to the program,
/// the second SIGTERM, the third leaves the program running.
class StreamJob : public Job {
 public:
  StreamJob(JobContext context, StreamPlan plan);
  void start() override;
  [[nodiscard]] bool interrupt(int number) override;
  [[nodiscard]] bool endProgram() override;
  [[nodiscard]] std::optional<runel::Request> cleanUp() const override;
  [[nodiscard]] std::string remainder() const override;
  [[nodiscard]] std::string sentLater() const override;
  [[nodiscard]] bool knowsOutcome() const override { return true; }

 private:
  void follow();
  void show(std::size_t stream, std::string_view bytes);
  void showEntry(std::size_t stream, std::string_view bytes);
  void addEntry(std::size_t stream, std::string_view bytes);
  void ended(const runel::JobEnd& end);
  void tellMissing(const runel::JobEnd& end);
  void conclude(const runel::JobEnd& end);
  void failed(const runel::Error& error);
  void lost(const runel::Error& error);
  void end(Outcome outcome);
  [[nodiscard]] std::string comeBack() const;

  StreamPlan plan_;
  std::unique_ptr<runel::JobStarter> starter_;
  std::unique_ptr<runel::JobFollower> follower_;
  std::string held_[2];  // the beginning of a character, for JSON
  int interruptions_ = 0;
  const std::size_t sentBefore_;  // requests, by other commands on a lent device
  bool disconnected_ = false;
  bool missing_ = false;  // a part of the output
  bool over_ = false;
};

}  // namespace runelctl

#endif  // RUNELCTL_COMMANDS_STREAM_JOB_H_
