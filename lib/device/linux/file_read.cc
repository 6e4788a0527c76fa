// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <cerrno>
#include <cstdint>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/unique_fd.h"
#include "device/linux/file_io.h"
#include "device/linux/paths.h"

namespace zell {
namespace {

// Small enough that the zeros which the string writes for a piece are still in the processor's
// cache when the read overwrites them.
constexpr std::size_t kReadPiece = std::size_t{64} * 1024;

// Appends the next piece to @p text. Above 0 there may be more, 0 is the end, below 0 an error.
ssize_t readPiece(int fd, std::string& text) {
  const std::size_t before = text.size();
  text.resize(before + kReadPiece);
  ssize_t length = 0;
  do {
    length = read(fd, text.data() + before, kReadPiece);
  } while (length < 0 && errno == EINTR);
  const int saved = errno;
  text.resize(before + static_cast<std::size_t>(std::max<ssize_t>(length, 0)));
  errno = saved;
  return length;
}

// @p mayWait: more data may follow later, but the read does not wait for it.
int readToEnd(int fd, bool mayWait, std::size_t limit, std::string& text) {
  for (;;) {
    const ssize_t length = readPiece(fd, text);
    if (length == 0 || (length < 0 && errno == EAGAIN && mayWait)) {
      return 0;
    }
    if (length < 0) {
      return errno;
    }
    if (text.size() > limit) {
      return EFBIG;
    }
  }
}

}  // namespace

int readWholeFile(const std::string& path, std::size_t limit, std::string& text) {
  if (hasZeroByte(path)) {
    return EINVAL;
  }
  const UniqueFd file(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  struct stat st {};
  if (!file.valid() || fstat(file.get(), &st) != 0) {
    return errno;
  }
  if (S_ISDIR(st.st_mode)) {
    return EISDIR;
  }
  const auto length = static_cast<std::uint64_t>(S_ISREG(st.st_mode) ? st.st_size : 0);
  if (length > limit) {
    return EFBIG;
  }
  const auto size = static_cast<std::size_t>(length);  // not before: 32 bits on some processors
  text.clear();
  text.reserve(size + kReadPiece);  // includes the read that detects the end
  return readToEnd(file.get(), !S_ISREG(st.st_mode), limit, text);
}

}  // namespace zell
