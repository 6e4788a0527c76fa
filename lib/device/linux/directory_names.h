// SPDX-License-Identifier: Apache-2.0
#ifndef ZELL_DEVICE_LINUX_DIRECTORY_NAMES_H_
#define ZELL_DEVICE_LINUX_DIRECTORY_NAMES_H_

#include <string>
#include <vector>

namespace zell {

/// Appends the names in the open directory @p fd to @p names, sorted by byte value, without `.` and
/// `..`. Returns 0 or an errno value; @p names may have grown on failure.
[[nodiscard]] int readNames(int fd, std::vector<std::string>& names);

/// The same for the directory @p path. Leaves @p names unchanged on failure.
[[nodiscard]] int readNames(const std::string& path, std::vector<std::string>& names);

}  // namespace zell

#endif  // ZELL_DEVICE_LINUX_DIRECTORY_NAMES_H_
