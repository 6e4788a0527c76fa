// SPDX-License-Identifier: Apache-2.0
// Holds the new content of a file until it replaces the old one.
#ifndef ZELL_DEVICE_LINUX_TEMPORARY_FILE_H_
#define ZELL_DEVICE_LINUX_TEMPORARY_FILE_H_

#include <string>
#include <string_view>

#include "base/durable_rename.h"
#include "base/unique_fd.h"
#include "device/linux/file_place.h"

struct stat;

namespace zell {

/// A temporary file beside the file at a place. The destructor removes it unless it was moved
/// there.
class TemporaryFile {
 public:
  /// Borrows @p place.
  explicit TemporaryFile(const FilePlace& place) : place_(place) {}
  ~TemporaryFile();
  TemporaryFile(const TemporaryFile&) = delete;
  TemporaryFile& operator=(const TemporaryFile&) = delete;

  /// Creates the file with the permission bits and the owner of @p old, or as a new file (0666 less
  /// the umask) when @p old is null. Returns 0 or an errno value.
  [[nodiscard]] int make(const struct stat* old);
  /// Writes all of @p data. Returns 0 or an errno value.
  [[nodiscard]] int fill(std::string_view data);
  /// Renames the file to the place's name, on disk when it returns.
  [[nodiscard]] RenameResult move();

 private:
  int open(int mode);

  const FilePlace& place_;
  std::string name_;  // empty when there is nothing to remove
  UniqueFd file_;
};

}  // namespace zell

#endif  // ZELL_DEVICE_LINUX_TEMPORARY_FILE_H_
