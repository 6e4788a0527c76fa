// SPDX-License-Identifier: Apache-2.0
#ifndef RUNELCTL_COMMANDS_GZIP_H_
#define RUNELCTL_COMMANDS_GZIP_H_

#include <chrono>
#include <memory>
#include <string>
#include <string_view>

namespace runelctl {

constexpr int kQuickGzip = 6;
constexpr int kBestGzip = 9;

/// @p bytes as a gzip file, compressed with zlib's @p level. Empty if there is not enough memory.
[[nodiscard]] std::string gzip(std::string_view bytes, int level = kQuickGzip);

/// Chooses the level for the next piece of a transfer. On a thin line there is much time between
/// two pieces, and a smaller piece saves more time than it takes.
class GzipLevel {
 public:
  using Duration = std::chrono::steady_clock::duration;

  [[nodiscard]] int level() const { return level_; }
  /// A piece took @p work, and began @p pause after the end of the one before.
  void add(Duration pause, Duration work);

 private:
  int level_ = kQuickGzip;
};

/// Compresses the pieces of a transfer. Copies share the level: they share the processor.
class PieceGzip {
 public:
  std::string operator()(std::string_view bytes) const;

 private:
  struct State {
    GzipLevel level;
    std::chrono::steady_clock::time_point end = std::chrono::steady_clock::now();
  };

  std::shared_ptr<State> state_ = std::make_shared<State>();
};

}  // namespace runelctl

#endif  // RUNELCTL_COMMANDS_GZIP_H_
