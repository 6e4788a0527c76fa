// SPDX-License-Identifier: Apache-2.0
#include "commands/bzip2.h"

#include <cstdint>
#include <string>

#include <bzlib.h>
#include <gtest/gtest.h>

namespace runelctl {
namespace {

std::string plainOf(std::string packed, std::size_t size) {
  std::string bytes(size + 1, '?');
  auto length = static_cast<unsigned>(bytes.size());
  EXPECT_EQ(BZ2_bzBuffToBuffDecompress(bytes.data(), &length, packed.data(),
                                       static_cast<unsigned>(packed.size()), 0, 0),
            BZ_OK);
  bytes.resize(length);
  return bytes;
}

TEST(Bzip2Test, GivesFilesThatUnpackToTheSameBytes) {
  for (const std::size_t size : {0U, 1U, 1000U, 1048576U}) {
    std::string bytes;
    for (std::size_t i = 0; i < size; ++i) {
      bytes.push_back(static_cast<char>(i * i % 251));
    }
    EXPECT_EQ(plainOf(bzip2(bytes), size), bytes) << size;
  }
}

TEST(Bzip2Test, HasRoomForBytesThatGrow) {
  std::string bytes;
  std::uint64_t state = 1;
  for (int i = 0; i < 300000; ++i) {
    state = state * 6364136223846793005U + 1442695040888963407U;
    bytes.push_back(static_cast<char>(state >> 56U));
  }
  const std::string packed = bzip2(bytes);
  EXPECT_GT(packed.size(), bytes.size());
  EXPECT_EQ(plainOf(packed, bytes.size()), bytes);
}

TEST(Bzip2Test, MakesTextSmaller) {
  EXPECT_LT(bzip2(std::string(100000, 'x')).size(), 100U);
}

}  // namespace
}  // namespace runelctl
