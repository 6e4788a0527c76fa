// SPDX-License-Identifier: Apache-2.0
// Whether compressed pieces are faster.
#ifndef RUNEL_TRANSFER_PUSH_PACKING_H_
#define RUNEL_TRANSFER_PUSH_PACKING_H_

#include <chrono>
#include <cstddef>

namespace runel {

/// Decides for each piece of a large file whether it is compressed. Both are tried, and what takes
/// less time continues. The first pieces are compressed only if that is wanted on any line.
class Packing {
 public:
  using Clock = std::chrono::steady_clock;

  /// Without @p on nothing is compressed. With @p onAnyLine it is tried on a fast line too.
  Packing(bool on, bool onAnyLine) : on_(on), onAnyLine_(onAnyLine) {}

  /// The request before the first piece of a file was answered.
  void begin(Clock::time_point now);
  /// A piece was sent.
  void sent(bool packed) { plainSent_ = plainSent_ || !packed; }
  /// A piece that had @p bytes before it was compressed was answered.
  void answered(std::size_t bytes, bool packed, Clock::time_point now);

  /// Whether to find out now if the device can unpack.
  [[nodiscard]] bool asks() const { return state_ == State::unknown && maySave(); }
  /// It was asked.
  void asked() { state_ = State::asked; }
  void setUnpacks(bool unpacks) { state_ = unpacks ? State::unpacks : State::cannot; }

  /// Whether to compress the next piece.
  [[nodiscard]] bool next() const;
  /// The most bytes of the next piece, before it is compressed.
  [[nodiscard]] std::size_t most() const;

 private:
  enum class State { unknown, asked, unpacks, cannot };
  struct Amount {
    double bytes = 0;
    double seconds = 0;
    [[nodiscard]] double rate() const;
  };

  [[nodiscard]] bool maySave() const;
  [[nodiscard]] bool triesPlain() const;

  const bool on_;
  const bool onAnyLine_;
  State state_ = State::unknown;
  Clock::time_point last_;
  bool plainSent_ = false;
  Amount plain_;
  Amount packed_;
};

}  // namespace runel

#endif  // RUNEL_TRANSFER_PUSH_PACKING_H_
