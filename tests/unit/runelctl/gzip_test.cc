// SPDX-License-Identifier: Apache-2.0
#include "commands/gzip.h"

#include <chrono>
#include <string>

#include <gtest/gtest.h>
#include <zlib.h>

namespace runelctl {
namespace {

std::string unpacked(std::string packed, std::size_t size) {
  std::string bytes(size + 1, '?');
  z_stream stream{};
  EXPECT_EQ(inflateInit2(&stream, 15 + 16), Z_OK);
  stream.next_in = reinterpret_cast<Bytef*>(packed.data());
  stream.avail_in = static_cast<uInt>(packed.size());
  stream.next_out = reinterpret_cast<Bytef*>(bytes.data());
  stream.avail_out = static_cast<uInt>(bytes.size());
  EXPECT_EQ(inflate(&stream, Z_FINISH), Z_STREAM_END);
  bytes.resize(stream.total_out);
  EXPECT_EQ(inflateEnd(&stream), Z_OK);
  return bytes;
}

TEST(GzipTest, GivesFilesThatUnpackToTheSameBytes) {
  for (const std::size_t size : {0U, 1U, 1000U, 1048576U}) {
    std::string bytes;
    for (std::size_t i = 0; i < size; ++i) {
      bytes.push_back(static_cast<char>(i * i % 251));
    }
    EXPECT_EQ(unpacked(gzip(bytes), size), bytes) << size;
  }
}

TEST(GzipTest, MakesTextSmaller) {
  EXPECT_LT(gzip(std::string(100000, 'x')).size(), 1000U);
}

TEST(GzipTest, CompressesHarderWhileThereIsTime) {
  using std::chrono::milliseconds;
  GzipLevel level;
  for (const int expected : {7, 8, 9, 9}) {
    level.add(milliseconds(21), milliseconds(10));
    EXPECT_EQ(level.level(), expected);
  }
  level.add(milliseconds(15), milliseconds(10));
  EXPECT_EQ(level.level(), 9);
  for (const int expected : {8, 7, 6, 6}) {
    level.add(milliseconds(9), milliseconds(10));
    EXPECT_EQ(level.level(), expected);
  }
}

TEST(GzipTest, PiecesOfATransferUnpackToTheSameBytes) {
  const PieceGzip pack;
  const std::string bytes(100000, 'x');
  for (int i = 0; i < 5; ++i) {
    EXPECT_EQ(unpacked(pack(bytes), bytes.size()), bytes);
  }
}

}  // namespace
}  // namespace runelctl
