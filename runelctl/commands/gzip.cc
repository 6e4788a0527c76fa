// SPDX-License-Identifier: Apache-2.0
#include "commands/gzip.h"

#include <algorithm>

#define ZLIB_CONST
#include <zlib.h>

namespace runelctl {
namespace {

constexpr int kWindowWithGzipHeader = 15 + 16;
constexpr int kMemoryLevel = 8;

}  // namespace

std::string gzip(std::string_view bytes, int level) {
  z_stream stream{};
  if (deflateInit2(&stream, level, Z_DEFLATED, kWindowWithGzipHeader, kMemoryLevel,
                   Z_DEFAULT_STRATEGY) != Z_OK) {
    return "";
  }
  std::string packed(deflateBound(&stream, bytes.size()), '\0');
  stream.next_in = reinterpret_cast<const Bytef*>(bytes.data());
  stream.avail_in = static_cast<uInt>(bytes.size());
  stream.next_out = reinterpret_cast<Bytef*>(packed.data());
  stream.avail_out = static_cast<uInt>(packed.size());
  const bool complete = deflate(&stream, Z_FINISH) == Z_STREAM_END;
  packed.resize(complete ? stream.total_out : 0);
  (void)deflateEnd(&stream);
  return packed;
}

void GzipLevel::add(Duration pause, Duration work) {
  if (pause > 2 * work) {
    level_ = std::min(level_ + 1, kBestGzip);
  } else if (pause < work) {
    level_ = std::max(level_ - 1, kQuickGzip);
  }
}

std::string PieceGzip::operator()(std::string_view bytes) const {
  const auto begin = std::chrono::steady_clock::now();
  std::string packed = gzip(bytes, state_->level.level());
  const auto end = std::chrono::steady_clock::now();
  state_->level.add(begin - state_->end, end - begin);
  state_->end = end;
  return packed;
}

}  // namespace runelctl
