// SPDX-License-Identifier: Apache-2.0
#include "base/system_log.h"

#include <cerrno>
#include <cstdio>
#include <ctime>
#include <string_view>

#include <fcntl.h>
#include <paths.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <unistd.h>

namespace zell {
namespace {

// "<1023>Mon DD HH:MM:SS " and "[PID]: " have at most 43 bytes.
constexpr std::size_t kHeadSize = 48;
constexpr char kEndOfLine = '\0';  // in a stream

iovec piece(std::string_view text) {
  return {const_cast<char*>(text.data()), text.size()};  // only read
}

// The date and the time in the form of the log, with a space at its end. Empty when the time does
// not exist in a calendar.
std::size_t printTime(char* text, std::size_t size) {
  const std::time_t now = std::time(nullptr);
  std::tm parts{};
  return localtime_r(&now, &parts) == nullptr
             ? 0
             : std::strftime(text, size, "%b %e %H:%M:%S ", &parts);
}

void writeTo(int fd, std::string_view ident, std::string_view tail, std::string_view text,
             std::string_view end) {
  const iovec pieces[] = {piece(ident), piece(tail), piece(text), piece(end)};
  (void)writev(fd, pieces, 4);  // there is no place left to report an error
}

}  // namespace

// A line in the pieces that are sent: the head up to the time, the ident, "[PID]: " or ": ", the
// text.
struct SystemLog::Line {
  Line(int priority, const char* name, bool withPid, std::string_view message);

  char head[kHeadSize];
  char tail[kHeadSize];
  std::string_view ident;
  std::string_view text;
};

SystemLog::Line::Line(int priority, const char* name, bool withPid, std::string_view message)
    : head(), tail(), ident(name), text(message) {
  char time[32] = "";
  (void)printTime(time, sizeof time);
  (void)std::snprintf(head, sizeof head, "<%d>%s", priority, time);
  if (withPid) {
    (void)std::snprintf(tail, sizeof tail, "[%d]: ", static_cast<int>(getpid()));
  } else {
    (void)std::snprintf(tail, sizeof tail, ": ");
  }
}

void SystemLog::open(const char* ident, int options, int facility) {
  ident_ = ident != nullptr ? ident : ident_;
  options_ = options;
  if ((facility & ~LOG_FACMASK) == 0) {
    facility_ = facility;
  }
  if ((options & LOG_NDELAY) != 0) {
    connect();
  }
}

void SystemLog::close() {
  disconnect();
  ident_ = nullptr;
  type_ = SOCK_DGRAM;
}

void SystemLog::write(int priority, std::string_view text) {
  priority &= LOG_PRIMASK | LOG_FACMASK;
  if ((priority & LOG_FACMASK) == 0) {
    priority |= facility_;
  }
  const Line line(priority, ident_ != nullptr ? ident_ : program_invocation_short_name,
                  (options_ & LOG_PID) != 0, text);
  if ((options_ & LOG_PERROR) != 0) {
    const bool ended = !text.empty() && text.back() == '\n';
    writeTo(STDERR_FILENO, line.ident, line.tail, text, ended ? "" : "\n");
  }
  connect();
  if (send(line)) {
    return;
  }
  disconnect();  // the reader may have been restarted
  connect();
  if (send(line)) {
    return;
  }
  disconnect();
  if ((options_ & LOG_CONS) != 0) {
    const UniqueFd console(::open(_PATH_CONSOLE, O_WRONLY | O_NOCTTY | O_CLOEXEC));
    if (console.valid()) {
      writeTo(console.get(), line.ident, line.tail, text, "\r\n");
    }
  }
}

// Does nothing when there is a connection. EPROTOTYPE: the reader has a socket of the other type.
void SystemLog::connect() {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const std::string_view path = _PATH_LOG;
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  for (int attempt = 0; attempt < 2 && !socket_.valid(); ++attempt) {
    UniqueFd opened(socket(AF_UNIX, type_ | SOCK_CLOEXEC, 0));
    const auto* const where = reinterpret_cast<const sockaddr*>(&address);
    if (opened.valid() && ::connect(opened.get(), where, sizeof address) == 0) {
      socket_ = std::move(opened);
    } else if (!opened.valid() || errno != EPROTOTYPE) {
      return;
    } else {
      type_ = type_ == SOCK_DGRAM ? SOCK_STREAM : SOCK_DGRAM;
    }
  }
}

void SystemLog::disconnect() {
  socket_ = UniqueFd();
}

bool SystemLog::send(const Line& line) const {
  iovec pieces[] = {piece(line.head), piece(line.ident), piece(line.tail), piece(line.text),
                    piece({&kEndOfLine, 1})};
  msghdr message{};
  message.msg_iov = pieces;
  message.msg_iovlen = type_ == SOCK_STREAM ? 5 : 4;
  return socket_.valid() && sendmsg(socket_.get(), &message, MSG_NOSIGNAL) >= 0;
}

}  // namespace zell
