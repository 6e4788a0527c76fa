// SPDX-License-Identifier: Apache-2.0
#include "device/linux/file_io.h"

#include <cerrno>

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include "base/unique_fd.h"

namespace zell {
namespace {

constexpr int kReaderTimeout = 2000;  // milliseconds

// Waits until the reader of @p fd accepts data, or until the timeout.
bool becomesWritable(int fd) {
  pollfd set{fd, POLLOUT, 0};
  int ready = 0;
  do {
    ready = poll(&set, 1, kReaderTimeout);
  } while (ready < 0 && errno == EINTR);
  return ready > 0;
}

// Devices and FIFOs have no storage: fsync fails with EINVAL on them.
int syncIfPossible(int fd) {
  return fsync(fd) == 0 || errno == EINVAL || errno == EROFS ? 0 : errno;
}

}  // namespace

int writeAll(int fd, std::string_view data) {
  while (!data.empty()) {
    const ssize_t written = ::write(fd, data.data(), data.size());
    if (written > 0) {
      data.remove_prefix(static_cast<std::size_t>(written));
    } else if (written == 0) {
      return EIO;
    } else if (errno == EAGAIN) {
      if (!becomesWritable(fd)) {
        return EAGAIN;
      }
    } else if (errno != EINTR) {
      return errno;
    }
  }
  return 0;
}

int overwriteFile(const char* path, std::string_view data) {
  const UniqueFd file(open(path, O_WRONLY | O_TRUNC | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  if (!file.valid()) {
    return errno;
  }
  const int error = writeAll(file.get(), data);
  return error != 0 ? error : syncIfPossible(file.get());
}

}  // namespace zell
