// SPDX-License-Identifier: Apache-2.0
// Many small files as one: the archive format that every device's tar reads.
#ifndef ZELL_RUNELCTL_COMMANDS_ARCHIVE_H_
#define ZELL_RUNELCTL_COMMANDS_ARCHIVE_H_

#include <cstdint>
#include <string>
#include <string_view>

#include "client/records.h"

namespace zell::ctl {

/// Builds an archive of plain files in memory.
class Archive {
 public:
  struct About {
    std::uint32_t mode;
    std::uint64_t uid;
    std::uint64_t gid;
    Moment mtime;
  };

  /// @p name is short: at most 99 bytes.
  void add(std::string_view name, const About& about, std::string_view content);
  /// The whole archive with its end. Nothing may be added afterwards.
  [[nodiscard]] const std::string& finish();
  [[nodiscard]] std::size_t size() const { return bytes_.size(); }

 private:
  void header(std::string_view name, char type, const About& about, std::size_t size);
  void padded(std::string_view content);

  std::string bytes_;
};

}  // namespace zell::ctl

#endif  // ZELL_RUNELCTL_COMMANDS_ARCHIVE_H_
