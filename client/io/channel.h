// SPDX-License-Identifier: Apache-2.0
// A connected socket that sends and receives frames without blocking the loop.
#ifndef RUNEL_IO_CHANNEL_H_
#define RUNEL_IO_CHANNEL_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include <runel/error.h>
#include <runel/loop.h>

#include "base/unique_fd.h"
#include "client/core/frame_stream.h"
#include "client/io/spool.h"

namespace runel {

/// Moves the bytes of a FrameStream. A handler may destroy the channel.
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
  void send(OutgoingPayload payload);
  /// The number of queued bytes that are not sent yet.
  [[nodiscard]] std::size_t queued() const { return stream_.queued(); }
  /// The number of bytes ever queued. Minus `queued()`, it is the number of sent bytes.
  [[nodiscard]] std::uint64_t everQueued() const { return stream_.everQueued(); }

  /// A message longer than @p bytes ends the connection.
  void limitMessages(std::size_t bytes) { stream_.limitPayloads(bytes); }
  /// Holds long messages in @p spool until they are complete.
  void setSpool(std::shared_ptr<Spool> spool);
  /// See `FrameStream::keepLongPayloads`.
  void keepLongMessages(FrameStream::MakeStore make, std::size_t least) {
    stream_.keepLongPayloads(std::move(make), least);
  }
  /// See `FrameStream`.
  void remove(std::uint64_t begin, std::uint64_t end);
  void spoil(std::uint64_t end) { stream_.spoil(end); }
  /// Pauses or resumes reading, so that a fast peer waits for a slow one.
  void setReading(bool reading);

  /// Whether nothing is being sent or received.
  [[nodiscard]] bool isIdle() const { return stream_.isIdle(); }
  /// Gives the socket away, in any state of the connection. Calls no handler any more.
  [[nodiscard]] zell::UniqueFd release();

  [[nodiscard]] int descriptor() const { return socket_.get(); }

 private:
  void handle(std::uint32_t events);
  void flush();
  bool receive();
  bool deliver(bool more);
  void releaseBuffer();
  void watchAcknowledgements();
  [[nodiscard]] std::size_t nextRead(std::size_t length, bool full);
  void finish(const Error& error);
  void askFor();
  [[nodiscard]] Error endOfStream(int number) const;

  Loop& loop_;
  zell::UniqueFd socket_;
  Handlers handlers_;
  FrameStream stream_;
  std::string in_;
  std::shared_ptr<Spool> spool_;
  std::size_t counted_ = 0;  // the memory of in_ that the spool counts
  bool reading_ = true;
  bool writing_ = false;
  const bool remote_;  // a TCP connection
  Timer look_;
  std::shared_ptr<bool> alive_;
};

}  // namespace runel

#endif  // RUNEL_IO_CHANNEL_H_
