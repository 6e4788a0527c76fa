// SPDX-License-Identifier: Apache-2.0
// The options of the commands that start or follow jobs on the device.
#ifndef RUNELCTL_COMMANDS_JOB_FLAGS_H_
#define RUNELCTL_COMMANDS_JOB_FLAGS_H_

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "client/jobs/job_requests.h"
#include "output/error.h"

namespace CLI {
class App;
class Option;
}  // namespace CLI

namespace runelctl {

/// Jobs whose IDs begin with this were named by runelctl, which removes them after some days.
constexpr char kJobPrefix[] = "runelctl-";

class JobFlags {
 public:
  /// The directory of all jobs.
  void defineDirectory(CLI::App& app, CLI::Option* needed = nullptr);
  /// How long a lost connection is tried again.
  void defineReconnect(CLI::App& app, CLI::Option* needed = nullptr);
  /// What a start has: limits, removal of old jobs, standard input. @p needed is an option that
  /// each of them requires, if any.
  void defineStart(CLI::App& app, CLI::Option* needed = nullptr);
  /// The ID: for a start an option, else an argument.
  void defineNewId(CLI::App& app);
  void defineId(CLI::App& app);

  /// The error in the values, empty for none.
  [[nodiscard]] std::string check() const;
  /// Reads standard input, if it is to be sent, and chooses an ID if none was given. Once for all
  /// devices: a job has the same ID on each.
  [[nodiscard]] std::optional<Error> prepare();

  [[nodiscard]] runel::JobPlace place() const { return {directory_, id_}; }
  [[nodiscard]] runel::JobPlan plan(std::vector<std::string> words, std::string workingDirectory,
                                    int seconds) const;
  [[nodiscard]] std::shared_ptr<const std::string> input() const { return input_; }
  [[nodiscard]] runel::Milliseconds reconnect() const;

 private:
  std::string directory_ = runel::kJobsDirectory;
  std::string id_;
  std::uint64_t limit_ = runel::kJobLimit;
  int days_ = runel::kJobDays;
  double reconnect_ = 600;
  bool stdin_ = false;
  std::shared_ptr<const std::string> input_;
};

/// The command line that follows the job @p place of @p device.
[[nodiscard]] std::string attachLine(const std::string& device, const runel::JobPlace& place);

}  // namespace runelctl

#endif  // RUNELCTL_COMMANDS_JOB_FLAGS_H_
