// SPDX-License-Identifier: Apache-2.0
#include "connections/xml_slave.h"

#include <cerrno>
#include <chrono>
#include <string_view>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <syslog.h>
#include <unistd.h>

#include <zell/string_helpers.h>

#include "base/log.h"
#include "base/send_wait.h"
#include "base/system.h"

namespace zell {
namespace {

using Next = ClauseBuffer::Next;
using std::chrono::microseconds;
using std::chrono::nanoseconds;

constexpr std::string_view kPing = "<ping/>\r\n";
constexpr std::size_t kShown = 60;
constexpr std::size_t kShownEnd = 40;
constexpr std::chrono::seconds kWriteLimit(30);

// The part of a text that a log line shows. @p text is the beginning of it: trimming needs one byte
// more than it shows.
std::string shown(std::string text) {
  return trimOutput(std::move(text), kShown);
}

std::string shown(const ClauseBuffer& buffer) {
  return shown(buffer.first(kShown + 1));
}

// If the socket refuses the option, writes keep the previous limit.
void limitWrites(int socket, nanoseconds limit) {
  const microseconds whole = std::chrono::ceil<microseconds>(limit);
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(whole);
  const timeval time{seconds.count(), (whole - seconds).count()};
  (void)setsockopt(socket, SOL_SOCKET, SO_SNDTIMEO, &time, sizeof time);
}

// A clause must not wait for the acknowledgement of the previous one, and a peer that reads nothing
// must not block the daemon for ever.
void setUpForRelay(int socket) {
  const int on = 1;
  (void)setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  limitWrites(socket, kWriteLimit);
}

// Waits until the send buffer has room for @p size bytes. A blocked write(2) resumes only when a
// third of the buffer is free, so it would time out on a slow but steady peer. A peer that frees a
// third within the first step is fast enough for write(2).
void waitForRoom(SendWait& wait, SendRoom& room, std::size_t size) {
  short events = POLLOUT;
  while (room.canEverTake(size) && wait.step(events)) {
    wait.look(sys::monotonicTime());
    if (wait.ready() || room.take(size)) {
      return;
    }
    events = 0;
  }
}

// Logs an incomplete write. errno is the one of write(2).
void logFailedWrite(int socket, ssize_t result) {
  if (result == -1) {
    logLine(LOG_ERR, "write: error on socket %d (%d, %m)", socket, errno);
  } else if (result == 0) {
    logLine(LOG_ERR, "write: error eof on socket %d (%d, %m)", socket, errno);
  } else {
    logLine(LOG_ERR, "write: error write failed on socket %d (%d, %m)", socket, errno);
  }
}

// Whether an incomplete write that began at @p begun reached the time limit: a signal may also end
// a write early. errno is the one of write(2).
bool timedOut(ssize_t result, nanoseconds begun) {
  if (result == -1) {
    return errno == EAGAIN;
  }
  return sys::monotonicTime() - begun >= kWriteLimit;
}

}  // namespace

XmlSlave::XmlSlave(int socket) : RunelConnection(socket, kXml), room_(socket) {
  setUpForRelay(socket);
}

XmlSlave::~XmlSlave() = default;

bool XmlSlave::inputPending() {
  return peer_ != nullptr && !buffer_.empty();
}

void XmlSlave::handleMessage(std::string& packet) {
  appendPacket(packet);
  if (peer_ == nullptr) {
    logLine(LOG_WARNING, "handleMessage: no peer_ link, buffering '%s'",
            shown(packet.substr(0, kShown + 1)).c_str());
    return;
  }
  while (nextXmlClause()) {
    (void)peer_->write(clause_);  // logs its failures; later clauses may succeed
  }
  if (clause_.capacity() > ClauseBuffer::kKeptCapacity) {
    std::string().swap(clause_);
  }
}

bool XmlSlave::stopRequested() {
  return stop_;
}

void XmlSlave::setPeer(XmlSlave* peer) {
  peer_ = peer;
  if (peer_ != nullptr) {
    std::string nothing;
    handleMessage(nothing);
  }
}

// Pings must not accumulate while they are not relayed, so one at the end of the buffer is enough.
// A buffer of exactly eight bytes also counts as ending with a ping: the ping would begin one byte
// before the buffer, which equals the "not found" value -1 of a search. Intentional: a lost
// keep-alive is repeated.
void XmlSlave::appendPacket(const std::string& packet) {
  if (packet == kPing && (buffer_.endsWith(kPing) || buffer_.size() + 1 == kPing.size())) {
    logLine(LOG_DEBUG, "appendPacket: discarding <ping/>");
    return;
  }
  buffer_.append(packet);
}

bool XmlSlave::nextXmlClause() {
  switch (buffer_.next(clause_)) {
    case Next::cut:
      return true;
    case Next::empty:
      break;
    case Next::sentinel:
      logLine(LOG_ERR, "*** error: nextXmlClause found byte count sentinels in input '%s'",
              shown(buffer_).c_str());
      stop_ = true;
      break;
    case Next::notOpening:
      logLine(LOG_WARNING, "nextXmlClause: expecting '<' at %d, got '%s'",
              static_cast<int>(buffer_.position()), shown(buffer_).c_str());
      break;
    case Next::noGt:
      logLine(LOG_WARNING, "nextXmlClause: cannot find '>' at %d, got '%s'",
              static_cast<int>(buffer_.position()), shown(buffer_).c_str());
      break;
    case Next::noClosing:
      logLine(LOG_WARNING, "nextXmlClause: closing not found, size = %d, buffer ='%s...%s'",
              static_cast<int>(buffer_.size()), buffer_.first(kShownEnd).c_str(),
              buffer_.size() > kShownEnd ? buffer_.last(kShownEnd).c_str() : "");
      break;
  }
  return false;
}

int XmlSlave::write(std::string& text) {
  if (bogusSocket()) {
    logLine(LOG_ERR, "write: bogus socket_ is %d", socket_);
    return -1;
  }
  text += "\r\n";
  const auto begun = sys::monotonicTime();
  const bool fits = room_.take(text.size());
  timedOut_ = timedOut_ && !fits;
  const ssize_t result =
      fits ? ::write(socket_, text.data(), text.size()) : writeInTime(text, begun);
  if (result < static_cast<ssize_t>(text.size())) {
    logFailedWrite(socket_, result);
    if (timedOut_ || timedOut(result, begun)) {
      // Shut down at the first timeout: the next clause must not block the whole daemon again.
      (void)shutdown(socket_, SHUT_RDWR);
    }
  }
  return static_cast<int>(result);  // the kernel takes less than 2 GiB in one call
}

// Waits for room, then writes. Both share the time limit. After a timeout the write may still
// succeed, because the kernel fills up the last packet without a check. So the next clause does not
// wait again until there is room. Leaves errno as set by write(2).
ssize_t XmlSlave::writeInTime(const std::string& text, nanoseconds begun) {
  int error = errno;
  SendWait wait(socket_, kWriteLimit, kWriteLimit, begun);
  if (!timedOut_) {
    waitForRoom(wait, room_, text.size());
    timedOut_ = wait.left() <= nanoseconds(0);
  }
  const nanoseconds left = timedOut_ ? microseconds(1) : wait.left();  // 0 would mean no limit
  limitWrites(socket_, left);
  errno = error;
  const ssize_t result = ::write(socket_, text.data(), text.size());
  error = errno;
  limitWrites(socket_, kWriteLimit);
  errno = error;
  return result;
}

}  // namespace zell
