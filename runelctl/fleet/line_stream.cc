// SPDX-License-Identifier: Apache-2.0
#include "fleet/line_stream.h"

namespace runelctl {
namespace {

constexpr std::size_t kMostHeldOfALine = 65536;

}  // namespace

void LineStream::add(std::string_view bytes) {
  held_.append(bytes);
  const std::size_t last = held_.rfind('\n');
  std::size_t ready = last == std::string::npos ? 0 : last + 1;
  if (held_.size() - ready > kMostHeldOfALine) {
    ready = held_.size();
  }
  if (ready > 0) {
    const std::string lines = held_.substr(0, ready);
    held_.erase(0, ready);
    lines_(lines);
  }
}

void LineStream::end() {
  if (!held_.empty()) {
    lines_(std::exchange(held_, {}));
  }
}

}  // namespace runelctl
