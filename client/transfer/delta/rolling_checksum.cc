// SPDX-License-Identifier: Apache-2.0
#include "client/transfer/delta/rolling_checksum.h"

namespace runel {
namespace {

constexpr std::uint32_t kCrcPolynomial = 0x04C11DB7;
constexpr std::uint32_t kCrcTopBit = 0x80000000;
constexpr std::size_t kCrcSlices = 8;

using CrcTable = std::array<std::uint32_t, 256>;

constexpr std::uint32_t timesX(std::uint32_t state) {
  return (state << 1U) ^ ((state & kCrcTopBit) != 0 ? kCrcPolynomial : 0);
}

// Table n: the state after one byte and n zero bytes.
constexpr std::array<CrcTable, kCrcSlices> makeCrcTables() {
  std::array<CrcTable, kCrcSlices> tables{};
  for (std::uint32_t byte = 0; byte < 256; ++byte) {
    std::uint32_t state = byte << 24U;
    for (std::array<std::uint32_t, 256>& table : tables) {
      for (int bit = 0; bit < 8; ++bit) {
        state = timesX(state);
      }
      table[byte] = state;
    }
  }
  return tables;
}

constexpr std::array<CrcTable, kCrcSlices> kCrcTables = makeCrcTables();

// The byte whose entry in the first table ends with the byte @p low. There is exactly one.
constexpr std::array<unsigned char, 256> makeCrcInverse() {
  std::array<unsigned char, 256> inverse{};
  for (unsigned byte = 0; byte < 256; ++byte) {
    inverse[kCrcTables[0][byte] & 0xffU] = static_cast<unsigned char>(byte);
  }
  return inverse;
}

constexpr std::array<unsigned char, 256> kCrcInverse = makeCrcInverse();

std::uint32_t addByte(std::uint32_t state, unsigned byte) {
  return (state << 8U) ^ kCrcTables[0][(state >> 24U) ^ byte];
}

std::uint32_t removeByte(std::uint32_t state, unsigned byte) {
  const unsigned index = kCrcInverse[state & 0xffU];
  return ((state ^ kCrcTables[0][index]) >> 8U) | ((index ^ byte) << 24U);
}

// The product of two polynomials, modulo that of the CRC.
std::uint32_t productOf(std::uint32_t a, std::uint32_t b) {
  std::uint32_t product = 0;
  for (; b != 0; b >>= 1U) {
    product ^= (b & 1U) != 0 ? a : 0;
    a = timesX(a);
  }
  return product;
}

// The factor that adds @p count zero bytes to a state.
std::uint32_t zerosFactor(std::uint64_t count) {
  std::uint32_t factor = 1;
  for (std::uint32_t power = 0x100; count != 0; count >>= 1U) {
    factor = (count & 1U) != 0 ? productOf(factor, power) : factor;
    power = productOf(power, power);
  }
  return factor;
}

}  // namespace

std::uint32_t crcState(std::string_view bytes) {
  const auto* data = reinterpret_cast<const unsigned char*>(bytes.data());
  const unsigned char* const end = data + bytes.size();
  const std::array<CrcTable, kCrcSlices>& t = kCrcTables;
  std::uint32_t state = 0;
  for (; end - data >= 8; data += 8) {
    state = t[7][(state >> 24U) ^ data[0]] ^ t[6][((state >> 16U) & 0xffU) ^ data[1]] ^
            t[5][((state >> 8U) & 0xffU) ^ data[2]] ^ t[4][(state & 0xffU) ^ data[3]] ^
            t[3][data[4]] ^ t[2][data[5]] ^ t[1][data[6]] ^ t[0][data[7]];
  }
  for (; data != end; ++data) {
    state = addByte(state, *data);
  }
  return state;
}

// The length, without leading zero bytes, begins with its low byte.
std::uint32_t cksumOf(std::uint32_t state, std::uint64_t length) {
  for (; length != 0; length >>= 8U) {
    state = addByte(state, static_cast<unsigned>(length & 0xffU));
  }
  return ~state;
}

std::uint32_t stateOfCksum(std::uint32_t sum, std::uint64_t length) {
  unsigned bytes = 0;
  for (std::uint64_t rest = length; rest != 0; rest >>= 8U) {
    ++bytes;
  }
  std::uint32_t state = ~sum;
  while (bytes != 0) {
    --bytes;
    state = removeByte(state, static_cast<unsigned>((length >> (8U * bytes)) & 0xffU));
  }
  return state;
}

RollingChecksum::RollingChecksum(std::size_t length) : entering_(&kCrcTables[0]) {
  const std::uint32_t factor = zerosFactor(length);
  for (std::size_t byte = 0; byte < leaving_.size(); ++byte) {
    leaving_[byte] = productOf(kCrcTables[0][byte], factor);
  }
}

}  // namespace runel
