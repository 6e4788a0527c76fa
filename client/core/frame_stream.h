// SPDX-License-Identifier: Apache-2.0
// Both directions of one connection: payloads become the bytes of frames, and bytes payloads.
#ifndef RUNEL_CORE_FRAME_STREAM_H_
#define RUNEL_CORE_FRAME_STREAM_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <runel/error.h>
#include <zell/byte_count_protocol.h>

#include "client/core/late_content.h"
#include "protocol/protocol.h"

namespace runel {

/// Holds the bytes of one long payload until it is complete.
class PayloadStore {
 public:
  PayloadStore() = default;
  virtual ~PayloadStore() = default;
  PayloadStore(const PayloadStore&) = delete;
  PayloadStore& operator=(const PayloadStore&) = delete;

  virtual void add(std::string_view bytes) = 0;
  /// Returns all bytes. Call it once, at the end. Without a value they are lost.
  [[nodiscard]] virtual std::optional<std::string> take() = 0;
};

/// Performs no I/O: its user moves the bytes.
class FrameStream {
 public:
  /// From this length on, a payload goes to a store.
  static constexpr std::size_t kLongPayload = 262144;
  /// Creates the store for a payload of @p length bytes.
  using MakeStore = std::function<std::unique_ptr<PayloadStore>(std::size_t length)>;

  /// Queues @p payload as one frame.
  void send(OutgoingPayload payload);
  void send(std::string payload) { send(OutgoingPayload(std::move(payload))); }
  /// The next queued bytes, in at most @p most parts. Valid until the next call.
  [[nodiscard]] std::vector<std::string_view> outgoing(std::size_t most) const;
  /// The first @p bytes of them are sent.
  void sent(std::size_t bytes);
  /// The number of queued bytes that are not sent yet.
  [[nodiscard]] std::size_t queued() const { return queued_; }
  /// The number of bytes ever queued. Minus `queued()`, it is the number of sent bytes.
  [[nodiscard]] std::uint64_t everQueued() const { return everQueued_; }

  /// Removes the frame from @p begin to @p end, as positions in all bytes ever queued. None of it
  /// may be sent. The positions of later frames decrease by its length.
  void remove(std::uint64_t begin, std::uint64_t end);
  /// Replaces the last byte of the frame that ends at @p end, which is not sent yet and not late
  /// content, so that its payload is no valid record.
  void spoil(std::uint64_t end);
  /// Late content could not be read: the rest of its frame must not be sent.
  [[nodiscard]] bool unreadable() const { return unreadable_; }

  /// Adds received @p bytes.
  void receive(const std::string& bytes);
  /// The next complete payload.
  [[nodiscard]] std::optional<std::string> nextPayload();
  /// The violation of the protocol that the received bytes are, if any.
  [[nodiscard]] std::optional<Error> error() const;
  /// Whether nothing is queued, and nothing of a payload was received.
  [[nodiscard]] bool isIdle() const {
    return queued_ == 0 && !store_ && codec_.isBetweenMessages();
  }
  /// Releases the memory that is kept for later payloads.
  void releaseSpare() { codec_.releaseSpare(); }
  /// A payload longer than @p bytes is a violation of the protocol, as soon as its length is
  /// announced.
  void limitPayloads(std::size_t bytes) { limit_ = bytes; }
  /// From now on keeps each payload of at least @p least bytes in a store of @p make while it is
  /// received. Without @p make in memory.
  void keepLongPayloads(MakeStore make, std::size_t least = kLongPayload) {
    makeStore_ = std::move(make);
    least_ = least;
  }

 private:
  // Bytes to send. Those of a late content are read part by part.
  struct Part {
    std::string bytes;
    LateContent late;  // what follows the bytes
    std::uint64_t offset = 0;
    // The number of bytes of `late` that were not read.
    [[nodiscard]] std::uint64_t unread() const { return late.size - offset; }
  };

  void queueShort(const std::string& head, const std::string& payload);
  void queueLong(OutgoingPayload&& payload);
  void readOn(Part& part);
  [[nodiscard]] std::uint64_t firstPosition() const { return everQueued_ - queued_ - sent_; }
  void beginStoring();
  [[nodiscard]] std::optional<std::string> storedPayload();

  std::list<Part> out_;   // the first one has bytes; needs no memory while nothing is sent
  std::size_t sent_ = 0;  // bytes of out_.front() that are sent
  std::size_t queued_ = 0;
  std::uint64_t everQueued_ = 0;
  bool unreadable_ = false;

  zell::ByteCountProtocol codec_{zell::ByteCountProtocol::kNoSocket};
  std::size_t limit_ = zell::kMaxFramePayload;
  bool tooLong_ = false;
  MakeStore makeStore_;
  std::size_t least_ = kLongPayload;
  std::unique_ptr<PayloadStore> store_;  // of the payload that is being received
  std::size_t missing_ = 0;              // bytes that store_ has not received
  bool lost_ = false;
  std::string first_;      // the first received bytes, for a guess at the peer's protocol
  bool complete_ = false;  // a payload was received: the peer speaks this protocol
};

}  // namespace runel

#endif  // RUNEL_CORE_FRAME_STREAM_H_
