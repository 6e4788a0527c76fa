// SPDX-License-Identifier: Apache-2.0
<<<<<<<< HEAD:lib/device/linux/directory_names.h
#ifndef ZELL_DEVICE_LINUX_DIRECTORY_NAMES_H_
#define ZELL_DEVICE_LINUX_DIRECTORY_NAMES_H_
========
#ifndef ZELL_DEVICE_LINUX_FOLDER_NAMES_H_
#define ZELL_DEVICE_LINUX_FOLDER_NAMES_H_
>>>>>>>> 04c02a3 (lib: move the shared code out of the daemon's directories):lib/device/linux/folder_names.h

#include <string>
#include <vector>

namespace zell {

/// Appends the names in the open directory @p fd to @p names, sorted by byte value, without `.` and
/// `..`. Returns 0 or an errno value; @p names may have grown on failure.
[[nodiscard]] int readNames(int fd, std::vector<std::string>& names);

/// The same for the directory @p path. Leaves @p names unchanged on failure.
[[nodiscard]] int readNames(const std::string& path, std::vector<std::string>& names);

}  // namespace zell

<<<<<<<< HEAD:lib/device/linux/directory_names.h
#endif  // ZELL_DEVICE_LINUX_DIRECTORY_NAMES_H_
========
#endif  // ZELL_DEVICE_LINUX_FOLDER_NAMES_H_
>>>>>>>> 04c02a3 (lib: move the shared code out of the daemon's directories):lib/device/linux/folder_names.h
