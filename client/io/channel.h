// SPDX-License-Identifier: Apache-2.0
// A connected socket that sends and receives frames without blocking the loop.
#ifndef RUNEL_IO_CHANNEL_H_
#define RUNEL_IO_CHANNEL_H_

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <string>

#include <zell/byte_count_protocol.h>

#include "base/unique_fd.h"
#include "client/core/error.h"
#include "client/io/loop.h"
#include "protocol/protocol.h"

namespace runel {

/// Sends and receives complete frames. A handler may destroy the channel.
class Channel {
 public:
  struct Handlers {
    /// A complete message was received.
    std::function<void(std::string&& payload)> message;
    /// The connection is closed. This is the last call.
    std::function<void(const Error& error)> end;
    /// Bytes were sent or received. May be empty.
    std::function<void()> progress;
  };

  /// Takes ownership of the connected, non-blocking @p socket. The loop must outlive the channel.
  Channel(Loop& loop, zell::UniqueFd socket, Handlers handlers);
  ~Channel();
  Channel(const Channel&) = delete;
  Channel& operator=(const Channel&) = delete;

  /// Queues @p payload as one frame. Sending starts in the next turn of the loop.
  void send(std::string payload);
  /// The number of queued bytes that are not sent yet.
  [[nodiscard]] std::size_t queued() const { return queued_; }

  /// The number of bytes ever queued. Minus `queued()`, it is the number of sent bytes.
  [[nodiscard]] std::uint64_t everQueued() const { return everQueued_; }

  /// A message longer than @p bytes ends the connection.
  void limitMessages(std::size_t bytes) { limit_ = bytes; }
  /// Pauses or resumes reading, so that a fast peer waits for a slow one.
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
  zell::UniqueFd socket_;
  Handlers handlers_;
  zell::ByteCountProtocol codec_{zell::ByteCountProtocol::kNoSocket};
  std::deque<std::string> out_;
  std::size_t sent_ = 0;  // bytes of out_.front() that are sent
  std::size_t queued_ = 0;
  std::uint64_t everQueued_ = 0;
  std::size_t coming_ = 0;  // bytes received since the last complete message
  std::size_t limit_ = zell::kMaxFramePayload;
  std::string in_;
  std::string first_;  // the first received bytes, for a guess at the peer's protocol
  bool reading_ = true;
  bool writing_ = false;
  std::shared_ptr<bool> alive_;
};

}  // namespace runel

#endif  // RUNEL_IO_CHANNEL_H_
