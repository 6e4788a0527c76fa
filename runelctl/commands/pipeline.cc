// SPDX-License-Identifier: Apache-2.0
#include "commands/pipeline.h"

#include <utility>

namespace runelctl {
namespace {

constexpr std::size_t kMostOnTheWay = 256;

// Well below the argument list limit of small systems.
constexpr std::size_t kMostNames = 1000;
constexpr std::size_t kMostNameBytes = 98304;

}  // namespace

Pipeline::Pipeline(runel::AsyncDevice& device, Source source, std::size_t mostBytes,
                   std::function<void()> end)
    : device_(device), source_(std::move(source)), mostBytes_(mostBytes), end_(std::move(end)) {}

void Pipeline::fill() {
  filling_ = true;
  while (!dry_ && count_ < kMostOnTheWay && (weight_ < mostBytes_ || count_ == 0)) {
    std::optional<Item> next = source_();
    if (!next) {
      dry_ = true;
      break;
    }
    ++count_;
    weight_ += next->weight;
    const runel::Request request = std::move(next->request);
    device_.ask(request, [this, item = std::move(*next)](const runel::Reply& reply) {
      answered(item, reply);
    });
  }
  filling_ = false;
  if (dry_ && count_ == 0) {
    const auto end = std::move(end_);
    end();
  }
}

void Pipeline::answered(const Item& item, const runel::Reply& reply) {
  --count_;
  weight_ -= item.weight;
  if (!item.handle(reply)) {
    dry_ = true;
  }
  if (!filling_) {
    fill();
  }
}

Pipeline::Source programSource(std::vector<ProgramRuns> runs,
                               std::function<bool(const ProgramRun& run)> handle) {
  struct State {
    std::vector<ProgramRuns> runs;
    std::function<bool(const ProgramRun&)> handle;
    std::size_t run = 0;
    std::size_t name = 0;
  };
  auto state = std::make_shared<State>(State{std::move(runs), std::move(handle)});
  return [state]() -> std::optional<Pipeline::Item> {
    while (state->run < state->runs.size() && state->name == state->runs[state->run].names.size()) {
      ++state->run;
      state->name = 0;
    }
    if (state->run == state->runs.size()) {
      return std::nullopt;
    }
    const ProgramRuns& run = state->runs[state->run];
    auto names = std::make_shared<std::vector<std::string>>();
    for (std::size_t bytes = 0;
         state->name < run.names.size() && names->size() < kMostNames && bytes < kMostNameBytes;
         ++state->name) {
      names->push_back(run.names[state->name]);
      bytes += names->back().size() + 1;
    }
    std::vector<std::string> words = run.words;
    words.insert(words.end(), names->begin(), names->end());
    return Pipeline::Item{runel::Request::exec(words, 0), kMostNameBytes,
                          [state, names, program = words[0]](const runel::Reply& reply) {
                            return state->handle({program, *names, reply});
                          }};
  };
}

}  // namespace runelctl
