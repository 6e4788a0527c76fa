// SPDX-License-Identifier: Apache-2.0
#include "tasks.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <iterator>

#include <sys/socket.h>
#include <sys/uio.h>

#include "work.h"

namespace zell::bench {
namespace {

// The name of a task and its first two arguments, without the rest of the record.
struct Request {
  std::string_view args[3];
};

std::size_t takeNumber(const char*& at, const char* end) {
  std::size_t number = 0;
  at = std::from_chars(at, end, number).ptr + 1;  // skips the byte after the number
  return number;
}

Request readRecord(std::string_view record) {
  Request request;
  const char* at = record.data() + sizeof "SlaveTask";
  const char* const end = record.data() + record.size();
  const std::size_t argc = std::min(takeNumber(at, end), std::size(request.args));
  for (std::size_t i = 0; i < argc; ++i) {
    const std::size_t length = takeNumber(at, end);
    request.args[i] = {at, length};
    at += length + 1;
  }
  return request;
}

template <std::size_t kSize>
char* put(char (&buffer)[kSize], char* at, std::string_view text) {
  return std::copy_n(text.data(), std::min(text.size(), std::size_t(buffer + kSize - at)), at);
}

iovec part(const char* begin, std::size_t length) {
  return {const_cast<char*>(begin), length};
}

// Sends the framed record of the reply in one call when the socket's buffer has room for it.
void answer(int fd, const Outcome& outcome) {
  char head[64];
  char* end = put(head, head, "SlaveTask 0 0 ");
  end = std::to_chars(end, std::end(head), outcome.text.size()).ptr;
  *end++ = ':';
  char tail[64];
  char* last = put(tail, tail, outcome.error == 0 ? " 0 0 0 " : " 1 0 1 ");
  last = std::to_chars(last, std::end(tail), outcome.error).ptr;
  last = put(tail, last, " 0");
  const auto headLength = static_cast<std::size_t>(end - head);
  const auto tailLength = static_cast<std::size_t>(last - tail);
  char frame[24] = "\x01";
  char* mark =
      std::to_chars(frame + 1, std::end(frame) - 1, headLength + outcome.text.size() + tailLength)
          .ptr;
  *mark++ = '\x02';
  iovec parts[] = {part(frame, static_cast<std::size_t>(mark - frame)), part(head, headLength),
                   part(outcome.text.data(), outcome.text.size()), part(tail, tailLength)};
  msghdr message{};
  message.msg_iov = parts;
  message.msg_iovlen = std::size(parts);
  (void)sendmsg(fd, &message, MSG_NOSIGNAL);  // blocks until all is sent
}

void serve(int fd, std::string_view record) {
  const Request request = readRecord(record);
  answer(fd, runTask(request.args[0], request.args[1], request.args[2]));
}

}  // namespace

void TaskFloor::receive(int fd, std::string_view bytes) {
  Inbox& inbox = inboxes_[static_cast<std::size_t>(fd)];
  while (!bytes.empty()) {
    bytes = takeHeader(inbox, bytes);
    const std::size_t missing = inbox.count - inbox.payload.size();
    if (inbox.inHeader) {
      return;
    }
    if (inbox.payload.empty() && bytes.size() >= missing) {
      serve(fd, bytes.substr(0, missing));  // whole in this packet: not copied
    } else {
      inbox.payload.reserve(inbox.count);
      inbox.payload.append(bytes.substr(0, missing));
      if (bytes.size() < missing) {
        return;
      }
      serve(fd, inbox.payload);
    }
    bytes.remove_prefix(missing);
    std::string().swap(inbox.payload);  // releases its memory
    inbox.inHeader = true;
    inbox.count = 0;
  }
}

// Parses the available part of marker, count and end mark. Returns the payload behind them.
std::string_view TaskFloor::takeHeader(Inbox& inbox, std::string_view bytes) {
  while (inbox.inHeader && !bytes.empty()) {
    const char byte = bytes.front();
    bytes.remove_prefix(1);
    if (byte == '\x02') {
      inbox.inHeader = false;
    } else if (byte != '\x01') {
      inbox.count = inbox.count * 10 + static_cast<std::size_t>(byte - '0');
    }
  }
  return bytes;
}

}  // namespace zell::bench
