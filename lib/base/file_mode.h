// SPDX-License-Identifier: Apache-2.0
// The parts of a file's mode.
#ifndef ZELL_BASE_FILE_MODE_H_
#define ZELL_BASE_FILE_MODE_H_

#include <sys/types.h>

namespace zell {

/// The read, write and execute permissions of user, group and others.
inline constexpr mode_t kAccessBits = 0777;
/// The permission bits of a file's mode, with the set-id bits and the sticky bit.
inline constexpr mode_t kPermissionBits = 07777;

/// The type letter of `ls -l` for a mode with its type bits; `-` for a regular file and an unknown
/// type.
[[nodiscard]] char typeLetter(mode_t mode);

}  // namespace zell

#endif  // ZELL_BASE_FILE_MODE_H_
