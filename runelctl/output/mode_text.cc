// SPDX-License-Identifier: Apache-2.0
#include "output/mode_text.h"

#include <cstddef>
#include <cstdio>

#include <sys/stat.h>

#include "base/file_mode.h"

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

std::string octalMode(std::uint32_t mode) {
  char text[16];
  std::snprintf(text, sizeof text, "%04o", mode & zell::kPermissionBits);
  return text;
}

}  // namespace runelctl
