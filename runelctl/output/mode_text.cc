// SPDX-License-Identifier: Apache-2.0
#include "output/mode_text.h"

#include <cstddef>
#include <cstdio>

#include <sys/stat.h>

namespace runelctl {

std::string modeText(char type, std::uint32_t mode) {
  std::string text = "-rwxrwxrwx";
  text[0] = type;
  for (std::size_t bit = 0; bit < 9; ++bit) {
    if ((mode & (0400U >> bit)) == 0) {
      text[bit + 1] = '-';
    }
  }
  const auto special = [&](std::uint32_t flag, std::size_t place, char with, char without) {
    if ((mode & flag) != 0) {
      text[place] = text[place] == 'x' ? with : without;
    }
  };
  special(S_ISUID, 3, 's', 'S');
  special(S_ISGID, 6, 's', 'S');
  special(S_ISVTX, 9, 't', 'T');
  return text;
}

char typeLetter(std::uint32_t mode) {
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

std::string octalMode(std::uint32_t mode) {
  char text[16];
  std::snprintf(text, sizeof text, "%04o", mode & 07777U);
  return text;
}

}  // namespace runelctl
