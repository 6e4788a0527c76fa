// SPDX-License-Identifier: Apache-2.0
// Helpers for operations that take a path from the master.
#ifndef ZELL_DEVICE_LINUX_PATHS_H_
#define ZELL_DEVICE_LINUX_PATHS_H_

#include <cerrno>
#include <string>

namespace zell {

/// Whether @p text contains a zero byte, where the kernel would truncate it.
[[nodiscard]] inline bool hasZeroByte(const std::string& text) {
  return text.find('\0') != std::string::npos;
}

/// Runs @p call on @p path and returns 0 or, when it fails, the errno value.
template <typename Call>
[[nodiscard]] int errorOf(const std::string& path, Call call) {
  if (hasZeroByte(path)) {
    return EINVAL;
  }
  return call(path.c_str()) == 0 ? 0 : errno;
}

}  // namespace zell

#endif  // ZELL_DEVICE_LINUX_PATHS_H_
