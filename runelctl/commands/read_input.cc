// SPDX-License-Identifier: Apache-2.0
#include "commands/read_input.h"

#include <cerrno>

#include <unistd.h>

#include <zell/byte_count_protocol.h>

#include "output/error.h"
#include "protocol/protocol.h"

namespace runelctl {
namespace {

constexpr std::size_t kRecordOverhead = 65536;  // bytes of the record besides the content

}  // namespace

std::string readInput(std::string& content) {
  content.clear();
  char part[65536];
  while (true) {
    const ssize_t got = ::read(STDIN_FILENO, part, sizeof part);
    if (got == 0) {
      return "";
    }
    if (got < 0 && errno != EINTR) {
      return "standard input: " + runel::systemText(errno);
    }
    content.append(part, got > 0 ? static_cast<std::size_t>(got) : 0);
    if (content.size() > zell::kMaxFramePayload - kRecordOverhead) {
      return "standard input: too large for one task; use push, which has no size limit";
    }
  }
}

}  // namespace runelctl
