// SPDX-License-Identifier: Apache-2.0
// Private declarations of the push job's source files.
#ifndef RUNELCTL_COMMANDS_PUSH_PARTS_H_
#define RUNELCTL_COMMANDS_PUSH_PARTS_H_

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "commands/push_job.h"

namespace runelctl {

/// The content of one archive: files or directories.
struct PushJob::Batch {
  std::string stage;         ///< the hidden directory on the device
  std::vector<Item*> items;  ///< a file's name in the archive is its index in this list
  bool staged = false;       ///< the hidden directory exists
  bool written = false;      ///< the archive is written completely
};

/// The large file in transfer.
struct PushJob::BigFile {
  Item* item = nullptr;
  LocalReader reader;
  std::string part;
  std::uint64_t offset = 0;  ///< end of the sent pieces
  bool again = false;        ///< sent again from the beginning
  std::optional<Error> error;
};

}  // namespace runelctl

#endif  // RUNELCTL_COMMANDS_PUSH_PARTS_H_
