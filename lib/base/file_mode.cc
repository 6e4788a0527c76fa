// SPDX-License-Identifier: Apache-2.0
#include "base/file_mode.h"

#include <sys/stat.h>

namespace zell {

char typeLetter(mode_t mode) {
  switch (mode & S_IFMT) {
    case S_IFDIR:
      return 'd';
    case S_IFLNK:
      return 'l';
    case S_IFCHR:
      return 'c';
    case S_IFBLK:
      return 'b';
    case S_IFIFO:
      return 'p';
    case S_IFSOCK:
      return 's';
    default:
      return '-';
  }
}

}  // namespace zell
