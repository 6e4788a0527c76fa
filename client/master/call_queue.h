// SPDX-License-Identifier: Apache-2.0
// Calls of a program's handlers.
#ifndef RUNEL_MASTER_CALL_QUEUE_H_
#define RUNEL_MASTER_CALL_QUEUE_H_

#include <functional>
#include <memory>
#include <vector>

#include <runel/loop.h>

namespace runel {

/// Makes calls in order, with no other function of the library on the stack. So each call may
/// destroy any object, also the queue with all further calls.
class CallQueue {
 public:
  explicit CallQueue(Loop& loop) : loop_(loop) {}
  CallQueue(const CallQueue&) = delete;
  CallQueue& operator=(const CallQueue&) = delete;

  void add(std::function<void()> call);

 private:
  void run();

  Loop& loop_;
  std::vector<std::function<void()>> calls_;
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

}  // namespace runel

#endif  // RUNEL_MASTER_CALL_QUEUE_H_
