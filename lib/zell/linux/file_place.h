// SPDX-License-Identifier: Apache-2.0
// Where a file is, or would be made.
#ifndef ZELL_LINUX_FILE_PLACE_H_
#define ZELL_LINUX_FILE_PLACE_H_

#include <string>

#include "base/unique_fd.h"

namespace zell {

/// A file as a name in an open folder: what is made beside it is in the same folder, however long
/// the path and whoever renames its folders meanwhile.
struct FilePlace {
  UniqueFd folder;
  std::string name;
};

/// Finds the place of @p path, following symbolic links, also those that lead to no file yet. 0 or
/// an errno value; EISDIR when the path can only be a folder.
[[nodiscard]] int findPlace(const std::string& path, FilePlace& place);

/// Has the folder @p fd on disk with all its names. 0 or an errno value.
[[nodiscard]] int syncFolder(int fd);

}  // namespace zell

#endif  // ZELL_LINUX_FILE_PLACE_H_
