// SPDX-License-Identifier: Apache-2.0
// The framing of the task protocol: the byte 0x01, the payload's length in decimal digits, the byte
// 0x02, the payload. docs/protocol.md describes it in full.
#ifndef ZELL_BYTE_COUNT_PROTOCOL_H_
#define ZELL_BYTE_COUNT_PROTOCOL_H_

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace zell {

/// Splits the byte stream of one socket into messages and frames the replies. The memory in use
/// grows with the bytes received, never with a length that the peer announced.
class ByteCountProtocol {
 public:
  /// Used in place of a socket by callers that read and send themselves: the codec then only splits
  /// bytes into messages, and the caller checks `error` after each part. The value is not -1,
  /// because a lost socket may be -1.
  static constexpr int kNoSocket = -2;

  /// Borrows @p socket, which must stay open while messages are sent.
  explicit ByteCountProtocol(int socket);
  virtual ~ByteCountProtocol();
  ByteCountProtocol(const ByteCountProtocol&) = delete;
  ByteCountProtocol& operator=(const ByteCountProtocol&) = delete;

  /// Accepts @p bytes, any part of the stream. At the first byte that cannot belong to a frame it
  /// logs the error once, shuts down the reading side of the socket, and discards that byte and all
  /// later ones. Messages completed before it stay available.
  void acceptBytes(const std::string& bytes);

  /// True exactly when at least one complete message is waiting.
  [[nodiscard]] bool dataAvailable() const { return next_ != coming_; }

  /// A description of the error in the stream, for users. Empty while the stream is valid.
  [[nodiscard]] const std::string& error() const { return error_; }

  /// Moves the oldest waiting message into @p message. Returns false and leaves @p message
  /// unchanged when no message is waiting. A small buffer that @p message held before is reused for
  /// a later message.
  bool recvMessage(std::string& message);

  /// Releases the buffers that are kept for later messages, if nothing is waiting or being
  /// received.
  void releaseSpare();

  /// Whether nothing of a message is waiting or being received.
  [[nodiscard]] bool isBetweenMessages() const {
    return !dataAvailable() && state_ == State::marker;
  }

  /// The length of the message that is being received, as the peer announced it. 0 between
  /// messages.
  [[nodiscard]] std::size_t announced() const {
    return state_ == State::payload ? slots_[coming_].size() + missing_ : 0;
  }
  /// Moves the received part of that message into @p part and expects the start of a frame next.
  /// Returns the number of bytes that are missing: the caller must not pass them to `acceptBytes`.
  std::size_t takeIncomplete(std::string& part);

  /// Sends @p head, @p body and @p tail together as one complete frame. Blocks while the peer is
  /// slow. Gives up on a peer that acknowledges nothing for 30 s, or that needs longer in all than
  /// 30 s plus 1 s for each MiB: logs it, shuts the socket down in both directions, returns false.
  /// Does the same on any other error. Logs a payload of more than 268435456 bytes and does not
  /// send it.
  bool sendMessage(std::string_view head, std::string_view body = {}, std::string_view tail = {});

 private:
  enum class State { marker, count, payload, bad };

  void acceptMarker(std::string_view& bytes);
  void acceptCount(std::string_view& bytes);
  void acceptDigit(char byte);
  void beginPayload();
  void acceptPayload(std::string_view& bytes);
  void finishPayload();
  void fail(const char* what);
  void dropSpareSlots();

  int socket_;
  State state_ = State::marker;
  std::string error_;
  std::size_t digits_ = 0;   // digits of the length parsed so far
  std::size_t missing_ = 0;  // the length, then the bytes of the payload not yet received
  // Messages slots_[next_] up to slots_[coming_] - 1 are waiting, slots_[coming_] is being
  // received. The other slots are spare: they keep a small buffer for later messages.
  std::vector<std::string> slots_;
  std::size_t next_ = 0;
  std::size_t coming_ = 0;
};

}  // namespace zell

#endif  // ZELL_BYTE_COUNT_PROTOCOL_H_
