// SPDX-License-Identifier: Apache-2.0
// The location of a file that exists or will be created.
#ifndef ZELL_DEVICE_LINUX_FILE_PLACE_H_
#define ZELL_DEVICE_LINUX_FILE_PLACE_H_

#include <string>

#include "base/unique_fd.h"

namespace zell {

/// A file as a name in an open directory. Files created beside it are in the same directory,
/// independent of the length of the path and of concurrent renames of its directories.
struct FilePlace {
  UniqueFd directory;
  std::string name;
};

/// Resolves @p path to its directory and name. Follows symbolic links, also dangling ones. Returns
/// 0 or an errno value; EISDIR when the path can only name a directory.
[[nodiscard]] int findPlace(const std::string& path, FilePlace& place);

}  // namespace zell

#endif  // ZELL_DEVICE_LINUX_FILE_PLACE_H_
