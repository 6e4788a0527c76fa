// SPDX-License-Identifier: Apache-2.0
// Packs many small files or directories into one tar archive.
#ifndef RUNEL_TRANSFER_ARCHIVE_H_
#define RUNEL_TRANSFER_ARCHIVE_H_

#include <cstdint>
#include <string>
#include <string_view>

#include <runel/records.h>

namespace runel {

/// Builds a tar archive of regular files and directories in memory.
class Archive {
 public:
  struct About {
    std::uint32_t mode;
    std::uint64_t uid;
    std::uint64_t gid;
    Timestamp mtime;
  };

  static constexpr std::size_t kMostName = 99;

  /// Adds a file. @p name has at most kMostName bytes.
  void add(std::string_view name, const About& about, std::string_view content);
  /// Adds a directory. @p name has at most kMostName bytes.
  void addDirectory(std::string_view name, const About& about);
  /// Returns the complete archive. Do not add anything afterwards.
  [[nodiscard]] std::string finish();
  [[nodiscard]] std::size_t size() const { return bytes_.size(); }

 private:
  void header(std::string_view name, char type, const About& about, std::size_t size);
  void exactTime(const Timestamp& mtime);
  void padded(std::string_view content);

  std::string bytes_;
};

}  // namespace runel

#endif  // RUNEL_TRANSFER_ARCHIVE_H_
