// SPDX-License-Identifier: Apache-2.0
#include "client/transfer/pipeline.h"

namespace runel {
namespace {

constexpr std::size_t kMostOnTheWay = 256;

}  // namespace

Pipeline::Pipeline(Ask ask, Source source, std::size_t mostBytes, std::function<void()> end)
    : Pipeline(
          std::move(ask), std::move(source), [mostBytes] { return mostBytes; }, std::move(end)) {}

Pipeline::Pipeline(Ask ask, Source source, Window window, std::function<void()> end)
    : ask_(std::move(ask)),
      source_(std::move(source)),
      window_(std::move(window)),
      end_(std::move(end)) {}

void Pipeline::fill() {
  while (!dry_ && count_ < kMostOnTheWay && (count_ == 0 || weight_ < window_())) {
    std::optional<Item> next = source_();
    if (!next) {
      dry_ = true;
      break;
    }
    ++count_;
    weight_ += next->weight;
    ask_(next->request, [this, weight = next->weight, handle = std::move(next->handle)](
                            const Reply& reply) { answered(weight, handle(reply)); });
  }
  if (dry_ && count_ == 0) {
    const auto end = std::move(end_);
    end();  // last, because it may destroy this object
  }
}

void Pipeline::answered(std::size_t weight, bool more) {
  --count_;
  weight_ -= weight;
  dry_ = dry_ || !more;
  fill();
}

}  // namespace runel
