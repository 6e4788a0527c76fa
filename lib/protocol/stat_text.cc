// SPDX-License-Identifier: Apache-2.0
#include <cstddef>
#include <cstdio>

#include <sys/stat.h>

#include <zell/string_helpers.h>

namespace zell {
namespace {

// Enough for thirteen names and sixteen numbers of 64 bits.
constexpr std::size_t kMaxStatLine = 512;

// The fields' widths and signs depend on the processor; the text does not.
template <typename Field>
long long number(Field field) {
  return static_cast<long long>(field);
}
template <typename Field>
unsigned long long unsignedNumber(Field field) {
  return static_cast<unsigned long long>(field);
}

}  // namespace

void printStat(std::ostream& out, const struct stat& st) {
  char line[kMaxStatLine];
  const int length = std::snprintf(
      line, sizeof line,
      "dev=%llu ino=%llu mode=%07o nlink=%llu uid=%llu gid=%llu rdev=%llu size=%lld blksize=%lld "
      "blocks=%lld atime=%lld.%09lld mtime=%lld.%09lld ctime=%lld.%09lld\n",
      unsignedNumber(st.st_dev), unsignedNumber(st.st_ino), static_cast<unsigned>(st.st_mode),
      unsignedNumber(st.st_nlink), unsignedNumber(st.st_uid), unsignedNumber(st.st_gid),
      unsignedNumber(st.st_rdev), number(st.st_size), number(st.st_blksize), number(st.st_blocks),
      number(st.st_atim.tv_sec), number(st.st_atim.tv_nsec), number(st.st_mtim.tv_sec),
      number(st.st_mtim.tv_nsec), number(st.st_ctim.tv_sec), number(st.st_ctim.tv_nsec));
  out.write(line, length);
}

}  // namespace zell
