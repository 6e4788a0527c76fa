// SPDX-License-Identifier: Apache-2.0
// What the sources of the push job share and nobody else sees.
#ifndef ZELL_RUNELCTL_COMMANDS_PUSH_PARTS_H_
#define ZELL_RUNELCTL_COMMANDS_PUSH_PARTS_H_

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "commands/push_job.h"

namespace zell::ctl {

/// What went in one archive: files or folders.
struct PushJob::Batch {
  std::string stage;         ///< the hidden folder on the device
  std::vector<Item*> items;  ///< each file in the archive under its place in this list
  bool staged = false;       ///< the hidden folder is there
  bool written = false;      ///< the archive is there whole
};

/// The large file that is on its way.
struct PushJob::BigFile {
  Item* item = nullptr;
  LocalReader reader;
  std::string part;
  std::uint64_t offset = 0;  ///< up to where pieces were asked for
  bool again = false;        ///< sent from its beginning once more
  std::optional<Error> error;
};

}  // namespace zell::ctl

#endif  // ZELL_RUNELCTL_COMMANDS_PUSH_PARTS_H_
