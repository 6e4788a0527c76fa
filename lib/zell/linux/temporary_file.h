// SPDX-License-Identifier: Apache-2.0
// The new content of a file, before it takes the old one's place.
#ifndef ZELL_LINUX_TEMPORARY_FILE_H_
#define ZELL_LINUX_TEMPORARY_FILE_H_

#include <string>
#include <string_view>

#include "base/unique_fd.h"
#include "zell/linux/file_place.h"

struct stat;

namespace zell {

/// A file beside the one at a place. It is removed at the end unless it has moved there.
class TemporaryFile {
 public:
  /// Borrows @p place.
  explicit TemporaryFile(const FilePlace& place) : place_(place) {}
  ~TemporaryFile();
  TemporaryFile(const TemporaryFile&) = delete;
  TemporaryFile& operator=(const TemporaryFile&) = delete;

  /// Makes the file with the permission bits and the owner of @p old, or as a new one (0666 less
  /// the umask) when that is null. 0 or an errno value.
  [[nodiscard]] int make(const struct stat* old);
  /// Writes all of @p data and has it on disk. 0 or an errno value.
  [[nodiscard]] int fill(std::string_view data);
  /// Takes the place; the caller syncs the folder. 0 or an errno value.
  [[nodiscard]] int move();

 private:
  int open(int mode);

  const FilePlace& place_;
  std::string name_;  // empty when there is nothing to remove
  UniqueFd file_;
};

}  // namespace zell

#endif  // ZELL_LINUX_TEMPORARY_FILE_H_
