// SPDX-License-Identifier: Apache-2.0
#include "client/transfer/stage.h"

#include <utility>

namespace runel {

void StageRunner::run(Stages stages, Stage::Next end) {
  stages_ = std::move(stages);
  end_ = std::move(end);
  proceed();
}

// A stage without requests calls this within its start(). The loop then starts the next stage, so
// that the depth of the stack does not depend on the number of stages.
void StageRunner::proceed() {
  ready_ = true;
  if (std::exchange(looping_, true)) {
    return;
  }
  while (std::exchange(ready_, false)) {
    if (next_ == stages_.size()) {
      end_();
      return;
    }
    stages_[next_++]->start([this] { proceed(); });
  }
  looping_ = false;
}

}  // namespace runel
