// SPDX-License-Identifier: Apache-2.0
// A router without devices: the test answers each call.
#ifndef FAKES_GATEWAY_FAKE_ROUTER_H_
#define FAKES_GATEWAY_FAKE_ROUTER_H_

#include <deque>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "gateway/core/router.h"

namespace runelgw {

class FakeRouter : public Router {
 public:
  struct Sent {
    CallId id = 0;
    Call call;
    Done done;
  };

  CallId send(Call call, Done done) override {
    sent.push_back({++last_, std::move(call), std::move(done)});
    return last_;
  }
  void cancel(CallId id) override {
    cancelled.push_back(id);
    for (auto call = sent.begin(); call != sent.end(); ++call) {
      if (call->id == id) {
        sent.erase(call);
        return;
      }
    }
  }
  [[nodiscard]] QueueState queue(DeviceId device) const override {
    const auto found = queues.find(device);
    return found == queues.end() ? QueueState() : found->second;
  }
  [[nodiscard]] runel::Result<void> sendClause(DeviceId device,
                                               const std::string& clause) override {
    if (clauseError) {
      return *clauseError;
    }
    clauses.emplace_back(device, clause);
    return {};
  }

  /// Ends the oldest call.
  void answer(Answer answer) {
    Sent call = std::move(sent.front());
    sent.pop_front();
    call.done(std::move(answer));
  }

  std::deque<Sent> sent;  ///< calls without an answer
  std::vector<CallId> cancelled;
  std::map<DeviceId, QueueState> queues;
  std::vector<std::pair<DeviceId, std::string>> clauses;
  std::optional<runel::Error> clauseError;

 private:
  CallId last_ = 0;
};

}  // namespace runelgw

#endif  // FAKES_GATEWAY_FAKE_ROUTER_H_
