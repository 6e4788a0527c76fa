// SPDX-License-Identifier: Apache-2.0
// What every operation that takes a name from a master has to look at first.
#ifndef ZELL_LINUX_PATHS_H_
#define ZELL_LINUX_PATHS_H_

#include <cerrno>
#include <string>

namespace zell {

/// Whether the kernel would see less of @p text than is in it.
[[nodiscard]] inline bool hasZeroByte(const std::string& text) {
  return text.find('\0') != std::string::npos;
}

/// The errno value of @p call on @p path, which answers as system calls do; 0 for success.
template <typename Call>
[[nodiscard]] int errorOf(const std::string& path, Call call) {
  if (hasZeroByte(path)) {
    return EINVAL;
  }
  return call(path.c_str()) == 0 ? 0 : errno;
}

}  // namespace zell

#endif  // ZELL_LINUX_PATHS_H_
