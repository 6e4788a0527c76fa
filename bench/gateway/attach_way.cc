// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <cstring>
#include <utility>
#include <vector>

#include <sys/epoll.h>
#include <nlohmann/json.hpp>

#include <runel/request.h>

#include "client/core/frame_stream.h"
#include "ways.h"
#include "wire.h"

namespace runel::bench {
namespace {

using Json = nlohmann::json;

enum Opcode : unsigned char {
  kContinued = 0,
  kText = 1,
  kBinary = 2,
  kClose = 8,
  kPing = 9,
  kPong = 10
};

constexpr std::size_t kCredit = 262144;
constexpr std::size_t kMostAttaching = 500;
constexpr int kDeadline = 60000;  // milliseconds

// A frame of a client is masked; the mask 0 changes no byte.
void addFrame(std::string& out, Opcode opcode, std::string_view payload) {
  constexpr unsigned char kFinal = 0x80, kMasked = 0x80;
  out += static_cast<char>(kFinal | opcode);
  if (payload.size() < 126) {
    out += static_cast<char>(kMasked | payload.size());
  } else if (payload.size() < 65536) {
    out += static_cast<char>(kMasked | 126U);
    out += static_cast<char>(payload.size() >> 8U);
    out += static_cast<char>(payload.size() & 0xffU);
  } else {
    fail("a message is too long");
  }
  out.append(4, 0);
  out += payload;
}

struct Frame {
  unsigned char opcode = 0;
  bool final = false;
  std::string_view payload;
  std::size_t size = 0;  // of the whole frame, 0 if it is not complete
};

Frame firstFrame(std::string_view in) {
  const auto byte = [in](std::size_t i) { return static_cast<unsigned char>(in[i]); };
  Frame frame;
  if (in.size() < 2) {
    return frame;
  }
  const unsigned code = byte(1) & 0x7fU;
  const std::size_t more = code == 127 ? 8 : code == 126 ? 2 : 0;
  if (in.size() < 2 + more) {
    return frame;
  }
  std::size_t length = more == 0 ? code : 0;
  for (std::size_t i = 0; i < more; ++i) {
    length = length << 8U | byte(2 + i);
  }
  if (in.size() < 2 + more + length) {
    return frame;
  }
  frame.opcode = byte(0) & 0x0fU;
  frame.final = (byte(0) & 0x80U) != 0;
  frame.payload = in.substr(2 + more, length);
  frame.size = 2 + more + length;
  return frame;
}

class AttachWay : public Way {
 public:
  AttachWay(Loop& loop, Target target)
      : loop_(loop),
        target_(std::move(target)),
        wire_(target_.address, target_.tls),
        channels_(target_.devices) {
    FrameStream frames;
    frames.send(requestRecord());
    for (const std::string_view part : frames.outgoing(16)) {
      request_ += part;
    }
  }
  ~AttachWay() override { loop_.forget(wire_.descriptor()); }

  void open(std::function<void()> ready, Answered answered) override {
    ready_ = std::move(ready);
    answered_ = std::move(answered);
    upgrade();
    if (!loop_.watch(wire_.descriptor(), EPOLLIN, [this](std::uint32_t) { read(); })) {
      fail("the connection cannot be watched");
    }
    attachSome();
    loop_.next([this] { readMessages(); });
  }

  void ask(std::size_t device) override {
    Channel& channel = channels_[device];
    if (channel.credit < request_.size()) {
      fail("the gateway does not let more requests be sent");
    }
    channel.credit -= request_.size();
    std::string message(4, 0);
    const std::size_t number = device + 1;
    for (std::size_t i = 0; i < 4; ++i) {
      message[i] = static_cast<char>(number >> (24 - 8 * i) & 0xffU);
    }
    message += request_;
    addFrame(out_, kBinary, message);
    flushLater();
  }

 private:
  struct Channel {
    FrameStream frames;
    std::size_t credit = kCredit;
    std::size_t taken = 0;  // bytes that the gateway has no credit for yet
  };

  void upgrade() {
    wire_.send(
        "GET /v1/attach HTTP/1.1\r\nHost: localhost\r\nUpgrade: websocket\r\n"
        "Connection: Upgrade\r\nSec-WebSocket-Version: 13\r\n"
        "Sec-WebSocket-Key: YmVuY2hfZ2F0ZXdheS4uLg==\r\n"
        "Sec-WebSocket-Protocol: runel.attach.v1\r\nAuthorization: Bearer " +
        target_.token + "\r\n\r\n");
    std::size_t end = std::string::npos;
    while ((end = in_.find("\r\n\r\n")) == std::string::npos) {
      wire_.await(in_);
    }
    if (in_.compare(0, 13, "HTTP/1.1 101 ") != 0) {
      fail("no WebSocket: " + in_);
    }
    in_.erase(0, end + 4);
  }

  void attachSome() {
    while (attaching_ - attached_ < kMostAttaching && attaching_ < channels_.size()) {
      const Json wish = {{"attach", attaching_ + 1},
                         {"device", nameOf(target_, attaching_)},
                         {"deadline_ms", kDeadline}};
      addFrame(out_, kText, wish.dump());
      ++attaching_;
    }
    flushLater();
  }

  void flushLater() {
    if (!flushing_) {
      flushing_ = true;
      loop_.next([this] {
        flushing_ = false;
        wire_.send(out_);
        out_.clear();
      });
    }
  }

  void read() {
    wire_.receive(in_);
    readMessages();
  }

  void readMessages() {
    std::size_t done = 0;
    for (Frame frame = firstFrame(in_); frame.size > 0;
         frame = firstFrame(std::string_view(in_).substr(done))) {
      take(frame);
      done += frame.size;
    }
    in_.erase(0, done);
  }

  void take(const Frame& frame) {
    if (frame.opcode == kClose) {
      fail("the gateway ends the connection: " + std::string(frame.payload.substr(2)));
    } else if (frame.opcode == kPing) {
      addFrame(out_, kPong, frame.payload);
      flushLater();
    } else if (frame.opcode != kPong) {
      opcode_ = frame.opcode == kContinued ? opcode_ : frame.opcode;
      message_ += frame.payload;
      if (frame.final) {
        opcode_ == kText ? takeText(Json::parse(message_)) : takeData(message_);
        message_.clear();
      }
    }
  }

  void takeText(const Json& told) {
    if (told.contains("attached")) {
      if (++attached_ == channels_.size()) {
        ready_();
      } else {
        attachSome();
      }
    } else if (told.contains("credit")) {
      channels_.at(told["credit"].get<std::size_t>() - 1).credit +=
          told["bytes"].get<std::size_t>();
    } else if (told.contains("failed")) {
      (void)std::fprintf(stderr, "bench_gateway: %s\n", told.dump().c_str());
      answered_(told["failed"].get<std::size_t>() - 1, false);
    } else if (!told.contains("progress")) {
      fail("unexpected: " + told.dump());
    }
  }

  void takeData(const std::string& message) {
    std::size_t number = 0;
    for (std::size_t i = 0; i < 4; ++i) {
      number = number << 8U | static_cast<unsigned char>(message.at(i));
    }
    Channel& channel = channels_.at(number - 1);
    grant(channel, number, message.size() - 4);
    channel.frames.receive(message.substr(4));
    while (const std::optional<std::string> payload = channel.frames.nextPayload()) {
      const std::optional<Reply> reply = Reply::decode(*payload);
      answered_(number - 1, reply && reply->ok());
    }
  }

  void grant(Channel& channel, std::size_t number, std::size_t bytes) {
    channel.taken += bytes;
    if (channel.taken >= kCredit / 2) {
      addFrame(out_, kText, Json{{"credit", number}, {"bytes", channel.taken}}.dump());
      channel.taken = 0;
      flushLater();
    }
  }

  Loop& loop_;
  const Target target_;
  Wire wire_;
  std::string request_;  // one frame
  std::vector<Channel> channels_;
  std::size_t attaching_ = 0, attached_ = 0;
  std::string in_, out_, message_;
  unsigned char opcode_ = 0;
  bool flushing_ = false;
  std::function<void()> ready_;
  Answered answered_;
};

}  // namespace

std::unique_ptr<Way> attachWay(Loop& loop, const Target& target) {
  return std::make_unique<AttachWay>(loop, target);
}

}  // namespace runel::bench
