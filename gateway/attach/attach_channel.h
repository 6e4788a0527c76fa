// SPDX-License-Identifier: Apache-2.0
// One device that a client uses.
#ifndef RUNELGW_ATTACH_ATTACH_CHANNEL_H_
#define RUNELGW_ATTACH_ATTACH_CHANNEL_H_

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

#include <runel/loop.h>
#include <runel/request.h>

#include "client/core/frame_stream.h"
#include "gateway/attach/attach.h"

namespace runelgw {

/// What a channel uses of its session.
class AttachHost {
 public:
  AttachHost() = default;
  virtual ~AttachHost() = default;
  AttachHost(const AttachHost&) = delete;
  AttachHost& operator=(const AttachHost&) = delete;

  [[nodiscard]] virtual const AttachParts& parts() const = 0;
  [[nodiscard]] virtual const AttachSettings& settings() const = 0;
  [[nodiscard]] virtual Permit& permit() = 0;
  virtual void sendText(std::string text) = 0;
  virtual void sendBytes(std::string bytes) = 0;
  /// The channel has something to send.
  virtual void ready(std::uint32_t channel) = 0;
  /// A request of the channel waits because there are too many answers in memory: call
  /// AttachChannel::resume when there are fewer.
  virtual void hold(std::uint32_t channel) = 0;
  /// A function for the router, which calls AttachChannel::answered.
  [[nodiscard]] virtual Router::Done answerTo(std::uint32_t channel, std::uint64_t request) = 0;
  /// The bytes of answers in memory, of all channels.
  [[nodiscard]] virtual std::size_t& answerBytes() = 0;
};

/// Turns the client's bytes into requests, passes them on in order, and the answers back.
///
/// Several requests are passed on together only if none of them changes anything. So nothing runs
/// behind a request that has not run.
class AttachChannel {
 public:
  AttachChannel(AttachHost& host, std::uint32_t number, DeviceId device,
                runel::Milliseconds deadline);
  /// Drops all requests.
  ~AttachChannel();
  AttachChannel(const AttachChannel&) = delete;
  AttachChannel& operator=(const AttachChannel&) = delete;

  /// Bytes of the client. Returns false if they are more than it may send.
  [[nodiscard]] bool receive(std::string_view bytes);
  /// The client takes more bytes. Returns false for an absurd number.
  [[nodiscard]] bool addCredit(std::uint64_t bytes);
  /// The end of a request.
  void answered(std::uint64_t request, Answer answer);
  /// Passes on what had to wait for other channels.
  void resume();
  /// Sends one message, if there is something to send and credit for it. Returns whether it did.
  bool give();
  /// Tells of progress.
  void tick();

  /// Whether the channel has ended and everything is told.
  [[nodiscard]] bool isOver() const { return ended_ && out_.empty() && stream_.queued() == 0; }
  /// An answer cannot be read: the session must end.
  [[nodiscard]] bool unreadable() const { return broken_ || stream_.unreadable(); }
  [[nodiscard]] bool marked() const { return marked_; }
  void mark(bool marked) { marked_ = marked; }

 private:
  class Store;
  struct Request {
    std::uint64_t id = 0;
    std::string task;
    bool changes = true;
    runel::Milliseconds extraTime{0};
    std::size_t bytes = 0;  // in memory
    Payload payload;        // until it is passed on
    CallId call = 0;        // 0: not passed on
    std::optional<Answer> end;
  };
  using Out = std::variant<std::string, Payload>;  // a text message, or the payload of a frame

  void read();
  void add(Payload payload);
  void examine(Request& request, const Payload& payload) const;
  void pass();
  void passOne(Request& request);
  void settle();
  void tell(Answer answer);
  void end(const std::string& text);
  void endRest(const std::string& text);
  void drop(Request& request, const std::string& text);
  void grant();
  void queueFrame(const Payload& payload);

  AttachHost& host_;
  const std::uint32_t number_;
  const DeviceId device_;
  const runel::Milliseconds deadline_;

  runel::FrameStream stream_;
  std::optional<Payload> stored_;  // the last long payload
  std::string storeProblem_;       // of a payload that cannot be stored
  std::deque<Request> requests_;   // without an end that was told
  std::size_t requestBytes_ = 0;   // of them, in memory
  std::uint64_t lastRequest_ = 0;

  std::size_t allowed_;    // bytes that the client may send
  std::size_t taken_ = 0;  // bytes for which no new credit was granted
  std::uint64_t credit_;   // bytes that the client takes
  std::deque<Out> out_;
  std::size_t streamBytes_ = 0;    // of answers in memory that are being sent
  runel::Clock::time_point told_;  // the progress that the client knows
  bool broken_ = false;
  bool marked_ = false;
  bool ended_ = false;
};

}  // namespace runelgw

#endif  // RUNELGW_ATTACH_ATTACH_CHANNEL_H_
