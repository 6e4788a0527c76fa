// SPDX-License-Identifier: Apache-2.0
// Requests to devices that may not be worked on.
#include "gateway/app/state_router.h"

#include <chrono>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "fakes/gateway/fake_router.h"

namespace runelgw {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class StateRouterTest : public testing::Test {
 protected:
  CallId send(DeviceId device) {
    Call call;
    call.device = device;
    return router.send(std::move(call), [this](const Answer& answer) {
      answers.push_back(std::string(nameOf(answer.outcome)) + "/" + codeOf(answer.reason));
    });
  }
  void turn() { loop.turn(std::chrono::milliseconds(0)); }

  runel::Loop loop;
  FakeRouter next;
  std::map<DeviceId, DeviceState> states = {{1, DeviceState::online},
                                            {2, DeviceState::offline},
                                            {3, DeviceState::waiting},
                                            {4, DeviceState::denied},
                                            {5, DeviceState::quarantined}};
  StateRouter router{loop, next, [this](DeviceId device) {
                       const auto found = states.find(device);
                       return found == states.end() ? std::nullopt
                                                    : std::optional<DeviceState>(found->second);
                     }};
  std::vector<std::string> answers;
};

TEST_F(StateRouterTest, PassesOnWhatMayBeWorkedOn) {
  for (const DeviceId device : {DeviceId{1}, DeviceId{2}, DeviceId{9}}) {
    const CallId id = send(device);
    ASSERT_FALSE(next.sent.empty());
    EXPECT_EQ(id, next.sent.back().id);
    EXPECT_EQ(next.sent.back().call.device, device);
  }
  turn();
  EXPECT_THAT(answers, IsEmpty());
  next.answer({Outcome::answered, Reason::none, "", {}});
  EXPECT_THAT(answers, ElementsAre("answered/none"));
}

TEST_F(StateRouterTest, TellsTheReasonLater) {
  for (const DeviceId device : {DeviceId{3}, DeviceId{4}, DeviceId{5}}) {
    send(device);
  }
  EXPECT_THAT(answers, IsEmpty()) << "never within the call";
  turn();
  EXPECT_THAT(answers, ElementsAre("not run/waiting", "not run/denied", "not run/quarantined"));
  EXPECT_THAT(next.sent, IsEmpty());
}

TEST_F(StateRouterTest, CancelsItsOwnCallsAndThoseOfTheNextRouter) {
  const CallId refused = send(3);
  const CallId passed = send(1);
  router.cancel(refused);
  router.cancel(passed);
  turn();
  EXPECT_THAT(answers, IsEmpty());
  EXPECT_THAT(next.cancelled, ElementsAre(passed));
}

TEST_F(StateRouterTest, PassesQueuesAndClausesOn) {
  next.queues[1].waiting = 7;
  EXPECT_EQ(router.queue(1).waiting, 7U);
  EXPECT_TRUE(router.sendClause(3, "<a/>"));
  EXPECT_THAT(next.clauses, ElementsAre(testing::Pair(3, "<a/>")));
}

}  // namespace
}  // namespace runelgw
