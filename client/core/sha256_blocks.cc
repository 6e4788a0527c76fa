// SPDX-License-Identifier: Apache-2.0
#include "client/core/sha256_blocks.h"

#if defined(__x86_64__)
#include <cpuid.h>
#include <immintrin.h>
#endif

namespace runel {
namespace {

constexpr std::size_t kSha256Block = 64;

constexpr std::uint32_t kRounds[64] = {
    0x428a2f98, 0x71374491, 0xb5c0fbcf, 0xe9b5dba5, 0x3956c25b, 0x59f111f1, 0x923f82a4, 0xab1c5ed5,
    0xd807aa98, 0x12835b01, 0x243185be, 0x550c7dc3, 0x72be5d74, 0x80deb1fe, 0x9bdc06a7, 0xc19bf174,
    0xe49b69c1, 0xefbe4786, 0x0fc19dc6, 0x240ca1cc, 0x2de92c6f, 0x4a7484aa, 0x5cb0a9dc, 0x76f988da,
    0x983e5152, 0xa831c66d, 0xb00327c8, 0xbf597fc7, 0xc6e00bf3, 0xd5a79147, 0x06ca6351, 0x14292967,
    0x27b70a85, 0x2e1b2138, 0x4d2c6dfc, 0x53380d13, 0x650a7354, 0x766a0abb, 0x81c2c92e, 0x92722c85,
    0xa2bfe8a1, 0xa81a664b, 0xc24b8b70, 0xc76c51a3, 0xd192e819, 0xd6990624, 0xf40e3585, 0x106aa070,
    0x19a4c116, 0x1e376c08, 0x2748774c, 0x34b0bcb5, 0x391c0cb3, 0x4ed8aa4a, 0x5b9cca4f, 0x682e6ff3,
    0x748f82ee, 0x78a5636f, 0x84c87814, 0x8cc70208, 0x90befffa, 0xa4506ceb, 0xbef9a3f7, 0xc67178f2};

std::uint32_t turnRight(std::uint32_t value, unsigned bits) {
  return (value >> bits) | (value << (32U - bits));
}

std::uint32_t bigEndianWord(const unsigned char* data) {
  return (std::uint32_t{data[0]} << 24U) | (std::uint32_t{data[1]} << 16U) |
         (std::uint32_t{data[2]} << 8U) | std::uint32_t{data[3]};
}

void portableSha256Block(Sha256State& state, const unsigned char* data) {
  std::uint32_t w[64];
  for (std::size_t i = 0; i < 16; ++i) {
    w[i] = bigEndianWord(data + 4 * i);
  }
  for (unsigned i = 16; i < 64; ++i) {
    const std::uint32_t a = turnRight(w[i - 15], 7) ^ turnRight(w[i - 15], 18) ^ (w[i - 15] >> 3U);
    const std::uint32_t b = turnRight(w[i - 2], 17) ^ turnRight(w[i - 2], 19) ^ (w[i - 2] >> 10U);
    w[i] = w[i - 16] + a + w[i - 7] + b;
  }
  auto [a, b, c, d, e, f, g, h] = state;
  for (unsigned i = 0; i < 64; ++i) {
    const std::uint32_t first = h + (turnRight(e, 6) ^ turnRight(e, 11) ^ turnRight(e, 25)) +
                                ((e & f) ^ (~e & g)) + kRounds[i] + w[i];
    const std::uint32_t second =
        (turnRight(a, 2) ^ turnRight(a, 13) ^ turnRight(a, 22)) + ((a & b) ^ (a & c) ^ (b & c));
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
    state[i] += added[i];
  }
}

#if defined(__x86_64__)

bool hasSha256Instructions() {
  constexpr unsigned kShaBit = 1U << 29U;    // in EBX of leaf 7
  constexpr unsigned kSse41Bit = 1U << 19U;  // in ECX of leaf 1
  unsigned a = 0;
  unsigned b = 0;
  unsigned c = 0;
  unsigned d = 0;
  const bool sse41 = __get_cpuid(1, &a, &b, &c, &d) != 0 && (c & kSse41Bit) != 0;
  return sse41 && __get_cpuid_count(7, 0, &a, &b, &c, &d) != 0 && (b & kShaBit) != 0;
}

__m128i loadWords(const void* data) {
  return _mm_loadu_si128(static_cast<const __m128i*>(data));
}

// The processor keeps the state as the words A B E F and C D G H. Each round of the loop does four
// of the algorithm and makes the four words that are due four rounds of the loop later.
__attribute__((target("sha,sse4.1"))) void quickSha256Blocks(Sha256State& state,
                                                             const unsigned char* data,
                                                             std::size_t blocks) {
  const __m128i order = _mm_set_epi64x(0x0c0d0e0f08090a0b, 0x0405060700010203);
  const __m128i cdab = _mm_shuffle_epi32(loadWords(&state[0]), 0xb1);
  const __m128i efgh = _mm_shuffle_epi32(loadWords(&state[4]), 0x1b);
  __m128i abef = _mm_alignr_epi8(cdab, efgh, 8);
  __m128i cdgh = _mm_blend_epi16(efgh, cdab, 0xf0);
  for (; blocks != 0; --blocks, data += kSha256Block) {
    const __m128i abefBefore = abef;
    const __m128i cdghBefore = cdgh;
    __m128i w[4];
    for (std::size_t i = 0; i < 4; ++i) {
      w[i] = _mm_shuffle_epi8(loadWords(data + 16 * i), order);
    }
#pragma GCC unroll 16
    for (std::size_t i = 0; i < 16; ++i) {
      const __m128i sum = _mm_add_epi32(w[i % 4], loadWords(&kRounds[4 * i]));
      cdgh = _mm_sha256rnds2_epu32(cdgh, abef, sum);
      abef = _mm_sha256rnds2_epu32(abef, cdgh, _mm_shuffle_epi32(sum, 0x0e));
      const __m128i next = _mm_add_epi32(_mm_sha256msg1_epu32(w[i % 4], w[(i + 1) % 4]),
                                         _mm_alignr_epi8(w[(i + 3) % 4], w[(i + 2) % 4], 4));
      w[i % 4] = _mm_sha256msg2_epu32(next, w[(i + 3) % 4]);
    }
    abef = _mm_add_epi32(abef, abefBefore);
    cdgh = _mm_add_epi32(cdgh, cdghBefore);
  }
  const __m128i feba = _mm_shuffle_epi32(abef, 0x1b);
  const __m128i dchg = _mm_shuffle_epi32(cdgh, 0xb1);
  _mm_storeu_si128(reinterpret_cast<__m128i*>(&state[0]), _mm_blend_epi16(feba, dchg, 0xf0));
  _mm_storeu_si128(reinterpret_cast<__m128i*>(&state[4]), _mm_alignr_epi8(dchg, feba, 8));
}

Sha256Blocks fastestSha256Blocks() {
  return hasSha256Instructions() ? quickSha256Blocks : portableSha256Blocks;
}

#else

Sha256Blocks fastestSha256Blocks() {
  return portableSha256Blocks;
}

#endif

}  // namespace

void portableSha256Blocks(Sha256State& state, const unsigned char* data, std::size_t blocks) {
  for (; blocks != 0; --blocks, data += kSha256Block) {
    portableSha256Block(state, data);
  }
}

Sha256Blocks sha256Blocks() {
  static const Sha256Blocks chosen = fastestSha256Blocks();
  return chosen;
}

}  // namespace runel
