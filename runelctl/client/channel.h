// SPDX-License-Identifier: Apache-2.0
// A connected socket that carries frames both ways without ever making the loop wait.
#ifndef ZELL_RUNELCTL_CLIENT_CHANNEL_H_
#define ZELL_RUNELCTL_CLIENT_CHANNEL_H_

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <string>

#include <zell/byte_count_protocol.h>

#include "base/unique_fd.h"
#include "client/error.h"
#include "client/loop.h"

namespace zell::ctl {

/// Sends and receives whole frames. Any handler may destroy the channel.
class Channel {
 public:
  struct Handlers {
    /// A whole message came.
    std::function<void(std::string&& payload)> message;
    /// The connection is over; nothing else comes after this.
    std::function<void(const Error& error)> end;
    /// Some bytes went out or came in. May be empty.
    std::function<void()> progress;
  };

  /// Takes over the connected, non-blocking @p socket. The loop outlives the channel.
  Channel(Loop& loop, UniqueFd socket, Handlers handlers);
  ~Channel();
  Channel(const Channel&) = delete;
  Channel& operator=(const Channel&) = delete;

  /// Queues @p payload as one frame and sends what the socket takes at the loop's next turn.
  void send(std::string payload);
  /// Bytes queued that have not gone out.
  [[nodiscard]] std::size_t queued() const { return queued_; }

  /// Bytes that were ever queued, for whoever wants to know what of them has gone out.
  [[nodiscard]] std::uint64_t everQueued() const { return everQueued_; }

  /// A message longer than @p bytes ends the connection.
  void limitMessages(std::size_t bytes) { limit_ = bytes; }
  /// Stops and goes on reading, so that a fast peer waits for a slow one.
  void setReading(bool reading);

  [[nodiscard]] int descriptor() const { return socket_.get(); }

 private:
  void handle(std::uint32_t events);
  void flush();
  bool receive();
  bool deliver();
  void finish(const Error& error);
  void askFor();
  [[nodiscard]] Error badStream() const;
  [[nodiscard]] Error endOfStream(int number) const;

  Loop& loop_;
  UniqueFd socket_;
  Handlers handlers_;
  ByteCountProtocol codec_{ByteCountProtocol::kNoSocket};
  std::deque<std::string> out_;
  std::size_t sent_ = 0;  // bytes of out_.front() that have gone out
  std::size_t queued_ = 0;
  std::uint64_t everQueued_ = 0;
  std::size_t coming_ = 0;  // bytes that came since the last whole message
  std::size_t limit_ = kMaxFramePayload;
  std::string in_;
  std::string first_;  // how the peer began to speak, for a guess at what it is
  bool reading_ = true;
  bool writing_ = false;
  std::shared_ptr<bool> alive_;
};

}  // namespace zell::ctl

#endif  // ZELL_RUNELCTL_CLIENT_CHANNEL_H_
