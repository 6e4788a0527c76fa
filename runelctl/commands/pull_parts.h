// SPDX-License-Identifier: Apache-2.0
// Private declarations of the pull job's source files.
#ifndef RUNELCTL_COMMANDS_PULL_PARTS_H_
#define RUNELCTL_COMMANDS_PULL_PARTS_H_

#include <cstdint>
#include <optional>
#include <string>

#include "commands/pull_job.h"

namespace runelctl {

/// The large file in transfer.
struct PullJob::BigFile {
  Item* item = nullptr;
  LocalWriter writer;
  std::uint64_t offset = 0;  ///< end of the requested pieces
  std::optional<Error> error;
};

/// The error for a remote file that changed during the transfer.
[[nodiscard]] inline Error changedThere(const std::string& path) {
  return {Fault::task, path + ": changed during the transfer", "retry the transfer", 0};
}

}  // namespace runelctl

#endif  // RUNELCTL_COMMANDS_PULL_PARTS_H_
