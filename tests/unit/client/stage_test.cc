// SPDX-License-Identifier: Apache-2.0
// What runs the stages of a transfer, and what keeps requests in flight.
#include <deque>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "client/transfer/pipeline.h"
#include "client/transfer/stage.h"

namespace runel {
namespace {

class CountedStage : public Stage {
 public:
  explicit CountedStage(int& count) : count_(count) {}
  void start(Next next) override {
    ++count_;
    next();
  }

 private:
  int& count_;
};

class HeldStage : public Stage {
 public:
  explicit HeldStage(Next& held) : held_(held) {}
  void start(Next next) override { held_ = std::move(next); }

 private:
  Next& held_;
};

// A recursive call for each of them would need more than the stack.
TEST(StageRunnerTest, RunsALongListWithoutADeepStack) {
  constexpr int kMany = 200000;
  int count = 0;
  bool ended = false;
  Stages stages;
  for (int i = 0; i < kMany; ++i) {
    stages.push_back(std::make_unique<CountedStage>(count));
  }
  StageRunner runner;
  runner.run(std::move(stages), [&] { ended = true; });
  EXPECT_EQ(count, kMany);
  EXPECT_TRUE(ended);
}

TEST(StageRunnerTest, WaitsForEachStage) {
  int count = 0;
  Stage::Next first;
  Stage::Next last;
  bool ended = false;
  Stages stages;
  stages.push_back(std::make_unique<HeldStage>(first));
  stages.push_back(std::make_unique<CountedStage>(count));
  stages.push_back(std::make_unique<HeldStage>(last));
  StageRunner runner;
  runner.run(std::move(stages), [&] { ended = true; });
  EXPECT_EQ(count, 0);
  first();
  EXPECT_EQ(count, 1);
  EXPECT_FALSE(ended);
  last();
  EXPECT_TRUE(ended);
}

TEST(StageRunnerTest, EndsAtOnceWithoutStages) {
  bool ended = false;
  StageRunner runner;
  runner.run({}, [&] { ended = true; });
  EXPECT_TRUE(ended);
}

// Sends numbered requests of one weight.
class PipelineTest : public ::testing::Test {
 protected:
  void start(std::size_t items, std::size_t weight, std::size_t mostBytes) {
    const auto source = [this, items, weight]() -> std::optional<Pipeline::Item> {
      if (made == items) {
        return std::nullopt;
      }
      return Pipeline::Item{Request({std::to_string(made++)}), weight,
                            [this](const Reply&) { return ++answered != stopAfter; }};
    };
    pipeline = std::make_unique<Pipeline>(
        [this](const Request&, std::function<void(const Reply&)> answer) {
          flight.push_back(std::move(answer));
        },
        source, mostBytes,
        [this] {
          ended = true;
          pipeline.reset();
        });
    pipeline->start();
  }
  void answerOne() {
    const auto answer = std::move(flight.front());
    flight.pop_front();
    answer(Reply());
  }

  std::unique_ptr<Pipeline> pipeline;
  std::deque<std::function<void(const Reply&)>> flight;
  std::size_t made = 0;
  std::size_t answered = 0;
  std::size_t stopAfter = 0;
  bool ended = false;
};

TEST_F(PipelineTest, KeepsALimitedWeightInFlight) {
  start(10, 100, 250);
  EXPECT_EQ(flight.size(), 3U);
  answerOne();
  EXPECT_EQ(flight.size(), 3U);
}

TEST_F(PipelineTest, SendsAnItemThatIsHeavierThanTheLimit) {
  start(2, 1000, 0);
  EXPECT_EQ(flight.size(), 1U);
}

TEST_F(PipelineTest, EndsAfterTheLastAnswerAndMayBeDestroyedThen) {
  start(5, 0, 1);
  for (int i = 0; i < 4; ++i) {
    answerOne();
  }
  EXPECT_FALSE(ended);
  answerOne();
  EXPECT_TRUE(ended);
}

TEST_F(PipelineTest, StopsWithoutFurtherRequests) {
  stopAfter = 1;
  start(10, 100, 250);
  answerOne();
  EXPECT_FALSE(ended) << "two are in flight";
  answerOne();
  answerOne();
  EXPECT_TRUE(ended);
  EXPECT_EQ(made, 3U);
}

}  // namespace
}  // namespace runel
