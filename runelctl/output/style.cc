// SPDX-License-Identifier: Apache-2.0
#include "output/style.h"

#include <cerrno>
#include <cstdlib>

#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "output/text.h"

namespace runelctl {

std::string Style::name(std::string_view bytes) const {
  return outTerminal ? terminalSafe(bytes) : std::string(bytes);
}

std::string Style::red(const std::string& text) const {
  return colours ? "\x1b[31m" + text + "\x1b[0m" : text;
}

Style styleFor(bool json, bool quiet, const std::string& colour) {
  Style style;
  style.json = json;
  style.quiet = quiet;
  style.outTerminal = isatty(STDOUT_FILENO) == 1;
  style.errTerminal = isatty(STDERR_FILENO) == 1;
  const char* none = std::getenv("NO_COLOR");
  const bool wanted = style.errTerminal && (none == nullptr || *none == '\0');
  style.colours = colour == "always" || (colour == "auto" && wanted);
  return style;
}

std::size_t terminalColumns() {
  winsize size{};
  if (ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0) {
    return size.ws_col;
  }
  return 80;
}

bool writeAll(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t taken = ::write(fd, bytes.data(), bytes.size());
    if (taken >= 0) {
      bytes.remove_prefix(static_cast<std::size_t>(taken));
    } else if (errno == EAGAIN) {
      // Another process has made the terminal or pipe non-blocking.
      pollfd wanted{fd, POLLOUT, 0};
      (void)poll(&wanted, 1, -1);
    } else if (errno != EINTR) {
      return false;
    }
  }
  return true;
}

}  // namespace runelctl
