// SPDX-License-Identifier: Apache-2.0
// What the sources of the pull job share and nobody else sees.
#ifndef ZELL_RUNELCTL_COMMANDS_PULL_PARTS_H_
#define ZELL_RUNELCTL_COMMANDS_PULL_PARTS_H_

#include <cstdint>
#include <optional>
#include <string>

#include "commands/pull_job.h"

namespace zell::ctl {

/// The large file that is on its way.
struct PullJob::BigFile {
  Item* item = nullptr;
  LocalWriter writer;
  std::uint64_t offset = 0;  ///< up to where pieces were asked for
  std::optional<Error> error;
};

/// A file of the device that is not the one it was a moment ago.
[[nodiscard]] inline Error changedThere(const std::string& path) {
  return {Fault::task, path + ": changed during the transfer", "retry the transfer", 0};
}

}  // namespace zell::ctl

#endif  // ZELL_RUNELCTL_COMMANDS_PULL_PARTS_H_
