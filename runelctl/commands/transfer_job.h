// SPDX-License-Identifier: Apache-2.0
// The job of push, sync and pull: starts a transfer of the library and reports what it has done.
#ifndef RUNELCTL_COMMANDS_TRANSFER_JOB_H_
#define RUNELCTL_COMMANDS_TRANSFER_JOB_H_

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <runel/transfer.h>

#include "commands/job.h"
#include "commands/path_expander.h"
#include "commands/temporary_file.h"

namespace runelctl {

/// The arguments of one command line, for all of its devices.
struct TransferPlan {
  enum class Way { push, sync, pull };

  Way way = Way::push;
  std::vector<std::string> sources;  ///< as given on the command line
  std::string target;                ///< as given on the command line
  runel::TransferOptions options;
  std::optional<runel::PushSources> files;  ///< not for a pull: what was found below `sources`
  std::shared_ptr<TemporaryFile> input;     ///< of a push: the data of standard input
  bool toOutput = false;                    ///< of a pull: writes the file to standard output
};

class TransferJob : public Job {
 public:
  TransferJob(JobContext context, TransferPlan plan);
  /// Reports what an interrupted transfer has done.
  ~TransferJob() override;
  void start() override;
  [[nodiscard]] std::optional<runel::Request> cleanUp() const override;
  [[nodiscard]] std::string sentLater() const override;
  [[nodiscard]] bool resumes() const override { return true; }

 private:
  void startPush();
  void startPull();
  void takeSources(PathExpander::Expanded expanded);
  void pull(const std::vector<std::string>& sources);
  [[nodiscard]] std::optional<Error> placePull(const std::vector<std::string>& sources,
                                               std::string& target);
  [[nodiscard]] std::optional<Error> writeOutput();
  void showChange(const runel::TransferChange& change);
  void tellFailures(std::size_t first);
  void tell(const runel::TransferReport& done);
  void tellUnfinished(const runel::TransferReport& done);
  void tellAmount(const runel::TransferReport& done);
  void end(const runel::TransferReport& done);

  TransferPlan plan_;
  std::optional<PathExpander> expander_;   // for the sources of a pull
  std::vector<Error> failures_;            // of its patterns
  std::shared_ptr<TemporaryFile> output_;  // what a pull writes to standard output
  std::string outputPath_;                 // on the device
  std::unique_ptr<runel::AsyncTransfer> transfer_;
  bool told_ = false;
};

}  // namespace runelctl

#endif  // RUNELCTL_COMMANDS_TRANSFER_JOB_H_
