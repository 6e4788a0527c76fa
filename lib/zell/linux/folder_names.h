// SPDX-License-Identifier: Apache-2.0
#ifndef ZELL_LINUX_FOLDER_NAMES_H_
#define ZELL_LINUX_FOLDER_NAMES_H_

#include <string>
#include <vector>

namespace zell {

/// Appends the names in the open folder @p fd to @p names, without `.` and `..`, by byte value. 0
/// or an errno value; @p names may have grown then.
[[nodiscard]] int readNames(int fd, std::vector<std::string>& names);

/// The same for the folder @p path; @p names is left alone on failure.
[[nodiscard]] int readNames(const std::string& path, std::vector<std::string>& names);

}  // namespace zell

#endif  // ZELL_LINUX_FOLDER_NAMES_H_
