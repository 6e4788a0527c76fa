// SPDX-License-Identifier: Apache-2.0
// The framing of the task protocol: the byte 0x01, the payload's length in decimal digits, the byte
// 0x02, the payload. docs/protocol.md has it in full.
#ifndef ZELL_BYTE_COUNT_PROTOCOL_H_
#define ZELL_BYTE_COUNT_PROTOCOL_H_

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace zell {

/// The longest payload of a frame, in bytes, in both directions.
constexpr std::size_t kMaxFramePayload = 268435456;

/// Cuts the byte stream of one socket into messages and frames the answers. Memory grows with the
/// bytes that came, never with a count that was announced.
class ByteCountProtocol {
 public:
  /// In place of a socket: only cut bytes into messages, for whoever reads and sends in a loop of
  /// its own, and asks `error` after each part. Not -1, which a lost socket may be.
  static constexpr int kNoSocket = -2;

  /// Borrows @p socket, which must stay open while messages are sent.
  explicit ByteCountProtocol(int socket);
  virtual ~ByteCountProtocol();
  ByteCountProtocol(const ByteCountProtocol&) = delete;
  ByteCountProtocol& operator=(const ByteCountProtocol&) = delete;

  /// Takes @p bytes, any part of the stream. At the first byte that cannot belong to a frame it
  /// logs the error once, ends the reading side of the socket, and drops that byte and all later
  /// ones; the messages complete before it stay.
  void acceptBytes(const std::string& bytes);

  /// True exactly when at least one complete message is waiting.
  [[nodiscard]] bool dataAvailable() const { return next_ != coming_; }

  /// What was wrong with the stream, for people; empty while it is sound.
  [[nodiscard]] const std::string& error() const { return error_; }

  /// Moves the oldest waiting message into @p message; false, leaving it alone, when there is none.
  /// The memory that @p message had before serves a later message when it is small.
  bool recvMessage(std::string& message);

  /// Sends @p head, @p body and @p tail together as one frame, whole, blocking while the peer is
  /// slow to take it. A peer that acknowledges nothing for 30 s, or takes longer than 30 s and 1 s
  /// more for each MiB, is given up: logged, the socket shut down both ways, false. The same for
  /// any other error. A payload above kMaxFramePayload is logged and not sent.
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
  std::size_t digits_ = 0;   // digits of the count seen so far
  std::size_t missing_ = 0;  // the count, then what is still to come of the payload
  // Messages: slots_[next_] up to slots_[coming_] wait, slots_[coming_] is coming in. The others
  // are spare and keep a little memory for the next ones.
  std::vector<std::string> slots_;
  std::size_t next_ = 0;
  std::size_t coming_ = 0;
};

}  // namespace zell

#endif  // ZELL_BYTE_COUNT_PROTOCOL_H_
