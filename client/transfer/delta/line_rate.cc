// SPDX-License-Identifier: Apache-2.0
#include "client/transfer/delta/line_rate.h"

#include <algorithm>
#include <chrono>
#include <utility>

namespace runel {
namespace {

constexpr std::uint64_t kSlowRate = 5000000;  // bytes in a second
constexpr std::uint64_t kRatePiece = 262144;

}  // namespace

bool isSlowLine(std::uint64_t bytes, Clock::duration time) {
  const auto micro = std::chrono::duration_cast<std::chrono::microseconds>(time).count();
  return micro > 0 && bytes * 1000000 < kSlowRate * static_cast<std::uint64_t>(micro);
}

// The time of a request without content is that of the round trip. The first one may wait for
// earlier requests.
void LineRate::measure(std::uint64_t offset, Done done) {
  offset_ = offset;
  done_ = std::move(done);
  askNothing([this] { askNothing([this] { sendPiece(false); }); });
}

void LineRate::askNothing(std::function<void()> next) {
  work_.ask(Request({"fileexists", part_}),
            [this, begin = Clock::now(), next = std::move(next)](const Reply&) {
              roundTrip_ = std::min<Clock::duration>(roundTrip_, Clock::now() - begin);
              next();
            });
}

// A new connection is slow at first: a fast line shows itself with the second piece.
void LineRate::sendPiece(bool last) {
  std::string bytes;
  const std::uint64_t count = std::min(kRatePiece, reader_.size() - offset_);
  if (count == 0 || reader_.read(offset_, static_cast<std::size_t>(count), bytes)) {
    done_(offset_, false);
    return;
  }
  work_.ask(Request({"append", part_}, std::move(bytes)),
            [this, count, last, begin = Clock::now()](const Reply& reply) {
              offset_ += reply.ok() ? count : 0;
              if (reply.ok()) {
                work_.count(count, name_);
              }
              const bool slow = isSlowLine(count, Clock::now() - begin - roundTrip_);
              if (reply.ok() && slow && !last) {
                sendPiece(true);
              } else {
                done_(offset_, reply.ok() && slow);
              }
            });
}

}  // namespace runel
