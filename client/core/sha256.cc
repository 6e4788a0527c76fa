// SPDX-License-Identifier: Apache-2.0
#include "client/core/sha256.h"

#include <algorithm>

namespace runel {
namespace {

constexpr std::size_t kBlock = 64;

constexpr std::uint32_t kRounds[64] = {
    0x428a2f98, 0x71374491, 0xb5c0fbcf, 0xe9b5dba5, 0x3956c25b, 0x59f111f1, 0x923f82a4, 0xab1c5ed5,
    0xd807aa98, 0x12835b01, 0x243185be, 0x550c7dc3, 0x72be5d74, 0x80deb1fe, 0x9bdc06a7, 0xc19bf174,
    0xe49b69c1, 0xefbe4786, 0x0fc19dc6, 0x240ca1cc, 0x2de92c6f, 0x4a7484aa, 0x5cb0a9dc, 0x76f988da,
    0x983e5152, 0xa831c66d, 0xb00327c8, 0xbf597fc7, 0xc6e00bf3, 0xd5a79147, 0x06ca6351, 0x14292967,
    0x27b70a85, 0x2e1b2138, 0x4d2c6dfc, 0x53380d13, 0x650a7354, 0x766a0abb, 0x81c2c92e, 0x92722c85,
    0xa2bfe8a1, 0xa81a664b, 0xc24b8b70, 0xc76c51a3, 0xd192e819, 0xd6990624, 0xf40e3585, 0x106aa070,
    0x19a4c116, 0x1e376c08, 0x2748774c, 0x34b0bcb5, 0x391c0cb3, 0x4ed8aa4a, 0x5b9cca4f, 0x682e6ff3,
    0x748f82ee, 0x78a5636f, 0x84c87814, 0x8cc70208, 0x90befffa, 0xa4506ceb, 0xbef9a3f7, 0xc67178f2};

std::uint32_t turn(std::uint32_t value, unsigned bits) {
  return (value >> bits) | (value << (32U - bits));
}

std::uint32_t word(const unsigned char* data) {
  return (std::uint32_t{data[0]} << 24U) | (std::uint32_t{data[1]} << 16U) |
         (std::uint32_t{data[2]} << 8U) | std::uint32_t{data[3]};
}

const unsigned char* bytesOf(std::string_view text) {
  return reinterpret_cast<const unsigned char*>(text.data());
}

}  // namespace

void Sha256::block(const unsigned char* data) {
  std::uint32_t w[64];
  for (unsigned i = 0; i < 16; ++i) {
    w[i] = word(data + std::size_t{4} * i);
  }
  for (unsigned i = 16; i < 64; ++i) {
    const std::uint32_t a = turn(w[i - 15], 7) ^ turn(w[i - 15], 18) ^ (w[i - 15] >> 3U);
    const std::uint32_t b = turn(w[i - 2], 17) ^ turn(w[i - 2], 19) ^ (w[i - 2] >> 10U);
    w[i] = w[i - 16] + a + w[i - 7] + b;
  }
  auto [a, b, c, d, e, f, g, h] = state_;
  for (unsigned i = 0; i < 64; ++i) {
    const std::uint32_t first =
        h + (turn(e, 6) ^ turn(e, 11) ^ turn(e, 25)) + ((e & f) ^ (~e & g)) + kRounds[i] + w[i];
    const std::uint32_t second =
        (turn(a, 2) ^ turn(a, 13) ^ turn(a, 22)) + ((a & b) ^ (a & c) ^ (b & c));
    h = g;
    g = f;
    f = e;
    e = d + first;
    d = c;
    c = b;
    b = a;
    a = first + second;
  }
  const std::uint32_t added[8] = {a, b, c, d, e, f, g, h};
  for (std::size_t i = 0; i < 8; ++i) {
    state_[i] += added[i];
  }
}

void Sha256::add(std::string_view bytes) {
  length_ += bytes.size();
  if (!rest_.empty()) {
    const std::size_t part = std::min(kBlock - rest_.size(), bytes.size());
    rest_.append(bytes.substr(0, part));
    bytes.remove_prefix(part);
    if (rest_.size() < kBlock) {
      return;
    }
    block(bytesOf(rest_));
    rest_.clear();
  }
  for (; bytes.size() >= kBlock; bytes.remove_prefix(kBlock)) {
    block(bytesOf(bytes));
  }
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
