// SPDX-License-Identifier: Apache-2.0
#include "client/master/call_queue.h"

#include <utility>

namespace runel {

void CallQueue::add(std::function<void()> call) {
  calls_.push_back(std::move(call));
  if (calls_.size() == 1) {
    loop_.next([this, alive = std::weak_ptr<bool>(alive_)] {
      if (!alive.expired()) {
        run();
      }
    });
  }
}

// Runs only the calls that are queued now, so that other work of the loop gets its turn.
void CallQueue::run() {
  const std::weak_ptr<bool> alive = alive_;
  std::vector<std::function<void()>> calls;
  calls.swap(calls_);
  for (const auto& call : calls) {
    call();
    if (alive.expired()) {
      return;
    }
  }
}

}  // namespace runel
