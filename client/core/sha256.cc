// SPDX-License-Identifier: Apache-2.0
#include "client/core/sha256.h"

#include <algorithm>

#include "client/core/sha256_blocks.h"

namespace runel {
namespace {

constexpr std::size_t kBlock = 64;

const unsigned char* bytesOf(std::string_view text) {
  return reinterpret_cast<const unsigned char*>(text.data());
}

}  // namespace

void Sha256::add(std::string_view bytes) {
  length_ += bytes.size();
  if (!rest_.empty()) {
    const std::size_t part = std::min(kBlock - rest_.size(), bytes.size());
    rest_.append(bytes.substr(0, part));
    bytes.remove_prefix(part);
    if (rest_.size() < kBlock) {
      return;
    }
    sha256Blocks()(state_, bytesOf(rest_), 1);
    rest_.clear();
  }
  const std::size_t blocks = bytes.size() / kBlock;
  sha256Blocks()(state_, bytesOf(bytes), blocks);
  bytes.remove_prefix(blocks * kBlock);
  rest_ = bytes;
}

std::string Sha256::finish() {
  const std::uint64_t bits = length_ * 8;
  std::string tail("\x80", 1);
  tail.resize(1 + (kBlock + 55 - length_ % kBlock) % kBlock, '\0');
  for (unsigned shift = 64; shift != 0; shift -= 8) {
    tail += static_cast<char>((bits >> (shift - 8)) & 0xffU);
  }
  add(tail);
  static const char kDigits[] = "0123456789abcdef";
  std::string text;
  for (const std::uint32_t part : state_) {
    for (unsigned shift = 32; shift != 0; shift -= 4) {
      text += kDigits[(part >> (shift - 4)) & 0xfU];
    }
  }
  return text;
}

}  // namespace runel
