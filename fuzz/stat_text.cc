// SPDX-License-Identifier: Apache-2.0
// The line for a file's record with any field values, compared with the output of streams.
#include <algorithm>
#include <cstring>
#include <iomanip>
#include <sstream>

#include <sys/stat.h>

#include <zell/string_helpers.h>

#include "fuzz.h"

namespace {

void printTime(std::ostream& out, const char* name, const timespec& time) {
  out << ' ' << name << '=' << time.tv_sec << '.' << std::setw(9) << std::setfill('0')
      << time.tv_nsec;
}

std::string byStreams(const struct stat& st) {
  std::ostringstream out;
  out << "dev=" << st.st_dev << " ino=" << st.st_ino << " mode=0" << std::oct << std::setw(6)
      << std::setfill('0') << st.st_mode << std::dec << " nlink=" << st.st_nlink
      << " uid=" << st.st_uid << " gid=" << st.st_gid << " rdev=" << st.st_rdev
      << " size=" << st.st_size << " blksize=" << st.st_blksize << " blocks=" << st.st_blocks;
  printTime(out, "atime", st.st_atim);
  printTime(out, "mtime", st.st_mtim);
  printTime(out, "ctime", st.st_ctim);
  out << '\n';
  return out.str();
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  struct stat st {};
  std::memcpy(&st, data, std::min(size, sizeof st));
  st.st_mode &= 0777777;  // no system has a mode above it
  for (timespec* const time : {&st.st_atim, &st.st_mtim, &st.st_ctim}) {
    time->tv_nsec = static_cast<long>(static_cast<unsigned long>(time->tv_nsec) % 1000000000);
  }
  std::ostringstream line;
  zell::printStat(line, st);
  zell::fuzz::require(line.str() == byStreams(st));
  return 0;
}
