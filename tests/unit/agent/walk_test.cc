// SPDX-License-Identifier: Apache-2.0
// Compares random walks of an agent server with its model.
//
//   RUNELD_WALKS=100000   number of walks (default: 2,000)
//   RUNELD_WALK=17        only the walk with this seed
#include "unit/agent/walk.h"

#include <cstdlib>
#include <iostream>
#include <random>

namespace zell::test {
namespace {

class RandomChoices : public Choices {
 public:
  explicit RandomChoices(unsigned seed) : random_(seed) {}
  std::size_t below(std::size_t limit) override { return random_() % limit; }

 private:
  std::mt19937 random_;
};

long fromEnvironment(const char* name, long otherwise) {
  const char* const text = std::getenv(name);
  return text == nullptr ? otherwise : std::atol(text);
}

class WalkTest : public AgentCase {};

TEST_F(WalkTest, ServerFollowsTheModel) {
  const long only = fromEnvironment("RUNELD_WALK", -1);
  const long first = only < 0 ? 0 : only;
  const long end = only < 0 ? fromEnvironment("RUNELD_WALKS", 2000) : only + 1;
  ASSERT_LT(first, end);
  Visits visits;
  for (long seed = first; seed < end; ++seed) {
    RandomChoices choices(static_cast<unsigned>(seed));
    ASSERT_TRUE(Walk(choices, static_cast<int>(seed % 3), log).run(visits)) << "seed " << seed;
    ASSERT_TRUE(FakeProxy::living().empty()) << "seed " << seed;
  }
  for (const auto& [constellation, events] : visits) {
    std::cout << "  " << constellation << ": " << events << " events\n";
    EXPECT_TRUE(events > 0 || only >= 0) << constellation;
  }
}

}  // namespace
}  // namespace zell::test
