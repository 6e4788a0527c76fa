// SPDX-License-Identifier: Apache-2.0
// Whether compressed pieces are faster.
#ifndef RUNEL_TRANSFER_PUSH_PACKING_H_
#define RUNEL_TRANSFER_PUSH_PACKING_H_

#include <array>
#include <chrono>
#include <cstddef>

namespace runel {

/// What makes a piece smaller.
enum class Packer { none, gzip, bzip2 };

/// Decides for each piece of a large file how it is compressed. All that the device can unpack is
/// tried, and what takes the least time continues. The first pieces are compressed only if that is
/// wanted on any line.
class Packing {
 public:
  using Clock = std::chrono::steady_clock;

  /// Without @p on nothing is compressed. With @p onAnyLine it is tried on a fast line too.
  Packing(bool on, bool onAnyLine) : on_(on), onAnyLine_(onAnyLine) {}

  /// The request before the first piece of a file was answered.
  void begin(Clock::time_point now);
  /// A piece that had @p bytes before it was compressed was sent. Also if bzip2 made
  /// it no smaller.
  void sent(std::size_t bytes, Packer packer);
  /// It was answered.
  void answered(std::size_t bytes, Packer packer, Clock::time_point now);

  /// Whether to find out now if the device can unpack.
  [[nodiscard]] bool asks() const { return state_ == State::unknown && maySave(); }
  /// It was asked.
  void asked() { state_ = State::asked; }
  /// Without @p gzip nothing is compressed. @p bzip2 is tried too.
  void setUnpacks(bool gzip, bool bzip2);

  /// What to compress the next piece with.
  [[nodiscard]] Packer next() const;
  /// The most bytes of the next piece, before it is compressed.
  [[nodiscard]] std::size_t most() const;

 private:
  enum class State { unknown, asked, unpacks, cannot };
  struct Amount {
    double sent = 0;      // bytes
    double answered = 0;  // bytes, later ones count more
    double seconds = 0;   // for the answered ones
    [[nodiscard]] bool known() const;
    [[nodiscard]] double rate() const;
  };

  [[nodiscard]] Amount& amount(Packer packer) { return amounts_[static_cast<std::size_t>(packer)]; }
  [[nodiscard]] const Amount& amount(Packer packer) const {
    return amounts_[static_cast<std::size_t>(packer)];
  }
  [[nodiscard]] bool maySave() const;
  [[nodiscard]] bool triesPlain() const;
  [[nodiscard]] bool triesBzip2Shortly() const;
  [[nodiscard]] bool triesBzip2() const;
  [[nodiscard]] Packer fastest() const;

  const bool on_;
  const bool onAnyLine_;
  State state_ = State::unknown;
  bool bzip2_ = false;  // the device unpacks it
  Clock::time_point last_;
  std::array<Amount, 3> amounts_;
};

}  // namespace runel

#endif  // RUNEL_TRANSFER_PUSH_PACKING_H_
