// SPDX-License-Identifier: Apache-2.0
// How large the next piece of a large file is.
#ifndef RUNEL_TRANSFER_PUSH_PIECE_SIZES_H_
#define RUNEL_TRANSFER_PUSH_PIECE_SIZES_H_

#include <chrono>
#include <cstddef>
#include <cstdint>

namespace runel {

/// Chooses the sizes of pieces by the time that the device needs for them.
///
/// A piece is what the device takes in a second, up to 32 MiB: it holds the piece in memory, and an
/// interrupted transfer loses a piece. The device writes each piece to its disk before it answers,
/// so that large pieces are faster. For a file system in memory small ones are faster: the daemon's
/// allocator reuses small memory and obtains large memory anew for each piece.
class PieceSizes {
 public:
  using Clock = std::chrono::steady_clock;

  /// @p memory is what the pieces in flight may occupy here, in bytes.
  explicit PieceSizes(std::size_t memory) : memory_(memory) {}

  /// The device has @p bytes of memory to spare. Not known: a piece has at most 8 MiB.
  void setDeviceMemory(std::uint64_t bytes);
  /// Whether the file system of the file is in memory.
  void setInMemory(bool on) { inMemory_ = on; }
  /// An answer arrives @p time after its request at the earliest.
  void setRoundTrip(Clock::duration time) { roundTrip_ = time; }
  /// The request before the first piece of a file was answered.
  void begin(Clock::time_point now);
  /// A piece of @p bytes was answered.
  void answered(std::size_t bytes, Clock::time_point now);

  /// The size of the next piece, a multiple of `kPieceBlock`.
  [[nodiscard]] std::size_t next() const;
  /// How many bytes to have in flight, so that the device always has the next piece. It grows with
  /// the answered bytes: the first piece must not wait until many are read.
  [[nodiscard]] std::size_t window() const;
  /// The bytes per second that the device takes; 0 before the first answer.
  [[nodiscard]] double rate() const { return recent_.rate(); }

 private:
  struct Amount {
    double bytes = 0;
    double seconds = 0;

    void add(std::size_t moreBytes, double moreSeconds);
    [[nodiscard]] double rate() const;
  };

  static constexpr std::size_t kUnaskedMost = 8388608;

  [[nodiscard]] std::size_t most() const;

  const std::size_t memory_;
  std::size_t deviceMost_ = kUnaskedMost;
  Clock::duration roundTrip_ = Clock::duration::zero();
  Clock::time_point last_;
  std::uint64_t sinceBegin_ = 0;  // answered bytes of this file
  bool inMemory_ = false;
  Amount recent_;  // the older, the less they count
};

}  // namespace runel

#endif  // RUNEL_TRANSFER_PUSH_PIECE_SIZES_H_
