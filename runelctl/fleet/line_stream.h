// SPDX-License-Identifier: Apache-2.0
// Cuts a stream of bytes into lines.
#ifndef RUNELCTL_FLEET_LINE_STREAM_H_
#define RUNELCTL_FLEET_LINE_STREAM_H_

#include <functional>
#include <string>
#include <string_view>
#include <utility>

namespace runelctl {

/// Passes on complete lines as they come, and the rest at the end. A line of more than 64 KiB is
/// passed on in parts.
class LineStream {
 public:
  /// @p lines receives one or more lines. Each but the last one of the stream ends with a newline.
  explicit LineStream(std::function<void(const std::string& lines)> lines)
      : lines_(std::move(lines)) {}

  void add(std::string_view bytes);
  /// Passes on an incomplete line.
  void end();

 private:
  const std::function<void(const std::string&)> lines_;
  std::string held_;
};

}  // namespace runelctl

#endif  // RUNELCTL_FLEET_LINE_STREAM_H_
