// SPDX-License-Identifier: Apache-2.0
#include "commands/read_input.h"

#include <cerrno>

#include <fcntl.h>
#include <unistd.h>

#include <zell/byte_count_protocol.h>

#include "base/unique_fd.h"
#include "output/error.h"
#include "protocol/protocol.h"

namespace runelctl {
namespace {

constexpr std::size_t kRecordOverhead = 65536;  // bytes of the record besides the content
constexpr std::size_t kMostText = 1048576;

// Returns an errno value, EFBIG for more than @p most bytes, 0 for success.
int readAll(int fd, std::size_t most, std::string& content) {
  content.clear();
  char part[65536];
  while (content.size() <= most) {
    const ssize_t got = ::read(fd, part, sizeof part);
    if (got == 0) {
      return 0;
    }
    if (got < 0 && errno != EINTR) {
      return errno;
    }
    content.append(part, got > 0 ? static_cast<std::size_t>(got) : 0);
  }
  return EFBIG;
}

}  // namespace

std::string readInput(std::string& content) {
  const int error = readAll(STDIN_FILENO, zell::kMaxFramePayload - kRecordOverhead, content);
  if (error == EFBIG) {
    return "standard input: too large for one task; use push, which has no size limit";
  }
  return error == 0 ? "" : "standard input: " + runel::systemText(error);
}

std::string readText(const std::string& path, std::string& content) {
  int error = 0;
  if (path == "-") {
    error = readAll(STDIN_FILENO, kMostText, content);
  } else {
    const zell::UniqueFd file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    error = file.valid() ? readAll(file.get(), kMostText, content) : errno;
  }
  return error == 0 ? "" : path + ": " + runel::systemText(error);
}

}  // namespace runelctl
