// SPDX-License-Identifier: Apache-2.0
// The bytes that a device sends to the client library, on one connection with several requests. The
// replies and the end are the same for any borders of the reads, with and without a store for long
// payloads, and no reply exceeds its limit.
//
// The first byte chooses the requests and the size of the reads. Byte 0xee is replaced by "x", 4096
// times the value of the byte behind it.
#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <runel/error.h>
#include <runel/request.h>

#include "client/core/frame_stream.h"
#include "client/core/session.h"
#include "fuzz.h"

namespace {

using zell::fuzz::require;

constexpr std::size_t kReplyLimit = std::size_t{1} << 20;
constexpr std::size_t kRepeated = 4096;
constexpr char kRepeat = '\xee';
constexpr unsigned kManyRequests = 64, kRestartLast = 128;

class MemoryStore : public runel::PayloadStore {
 public:
  void add(std::string_view bytes) override { bytes_ += bytes; }
  std::optional<std::string> take() override { return std::move(bytes_); }

 private:
  std::string bytes_;
};

// What a user sees of one connection.
struct Seen {
  std::vector<std::string> replies;
  std::optional<runel::Cause> end;

  bool operator==(const Seen& other) const { return replies == other.replies && end == other.end; }
};

std::string textOf(const runel::Reply& reply) {
  const std::string error = reply.ok() ? "" : reply.error("task").text();
  return std::to_string(static_cast<int>(reply.status())) + " " +
         std::to_string(static_cast<int>(reply.state())) + " " + std::to_string(reply.result()) +
         " " + std::to_string(reply.number()) + " " + std::to_string(reply.signal()) + " " +
         (reply.answered() ? "answered " : "missing ") + error + " " + reply.output();
}

class Connection {
 public:
  Connection(unsigned choice, bool stored) {
    stream_.limitPayloads(kReplyLimit);
    if (stored) {
      stream_.keepLongPayloads([](std::size_t length) {
        require(length <= kReplyLimit);
        return std::make_unique<MemoryStore>();
      });
    }
    const int count = (choice & kManyRequests) != 0 ? 40 : 3;
    for (int i = 0; i < count; ++i) {
      add(runel::Request({i % 2 == 0 ? "read" : "exec", "/x"}));
    }
    if ((choice & kRestartLast) != 0) {
      add(runel::Request({"restart"}));
    }
    stream_.sent(stream_.queued());
    session_.progress(stream_.everQueued(), now_);
    requests_ = session_.pending();
  }

  void receive(const std::string& bytes) {
    if (seen_.end) {
      return;
    }
    stream_.receive(bytes);
    while (std::optional<std::string> payload = stream_.nextPayload()) {
      require(payload->size() <= kReplyLimit);
      if (const std::optional<runel::Error> error = session_.receive(std::move(*payload), now_)) {
        finish(*error);
        return;
      }
      deliver();
    }
    if (const std::optional<runel::Error> error = stream_.error()) {
      finish(*error);
    }
  }

  // The device closes the connection.
  Seen end() {
    if (!seen_.end) {
      finish(runel::Error(runel::Kind::link, runel::Cause::closed, "closed"));
    }
    require(seen_.replies.size() == requests_ && session_.pending() == 0);
    return seen_;
  }

 private:
  void add(const runel::Request& request) {
    session_.add(
        request, [this](const runel::Reply& reply) { seen_.replies.push_back(textOf(reply)); },
        now_);
    stream_.send(request.encode());
    session_.queued(stream_.everQueued());
  }

  void finish(const runel::Error& error) {
    seen_.end = error.cause();
    // The text of a wrong peer depends on the number of bytes that were received.
    session_.fail(runel::Error(error.kind(), error.cause(), "the end"));
    deliver();
  }

  void deliver() {
    while (std::optional<runel::Session::Completion> done = session_.nextCompletion()) {
      done->handler(done->reply);
    }
  }

  const runel::Session::Time now_;
  runel::FrameStream stream_;
  runel::Session session_{std::chrono::seconds(30)};
  std::size_t requests_ = 0;
  Seen seen_;
};

std::string expanded(const std::string& input) {
  std::string bytes;
  for (std::size_t i = 0; i < input.size(); ++i) {
    if (input[i] == kRepeat && i + 1 < input.size()) {
      bytes.append(kRepeated * static_cast<unsigned char>(input[++i]), 'x');
    } else {
      bytes += input[i];
    }
  }
  return bytes;
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const zell::fuzz::Choice input = zell::fuzz::firstByteChooses(data, size);
  const std::string bytes = expanded(input.rest);
  Connection whole(input.choice, false);
  whole.receive(bytes);
  const Seen seen = whole.end();
  for (const bool stored : {false, true}) {
    Connection parts(input.choice, stored);
    // Small reads of a long input would only take time.
    const std::size_t step = (input.choice & 63U) + 1 + bytes.size() / 1000;
    for (std::size_t at = 0; at < bytes.size(); at += step) {
      parts.receive(bytes.substr(at, step));
    }
    const Seen again = parts.end();
    // A wrong peer is known by its first bytes: a short read may show too few of them.
    require(again.replies.size() == seen.replies.size() && again.end.has_value());
    require(again == seen || seen.end == runel::Cause::wrongPeer ||
            again.end == runel::Cause::wrongPeer);
  }
  return 0;
}
