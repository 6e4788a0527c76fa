// SPDX-License-Identifier: Apache-2.0
// A transfer and its stages.
#ifndef RUNEL_TRANSFER_RUNNING_H_
#define RUNEL_TRANSFER_RUNNING_H_

#include <memory>
#include <utility>

#include "client/transfer/stage.h"
#include "client/transfer/work.h"

namespace runel {
inline namespace v1 {

struct AsyncTransfer::Data {
  /// Runs @p stages, which refer to @p work.
  [[nodiscard]] static std::unique_ptr<AsyncTransfer> start(std::unique_ptr<TransferWork> work,
                                                            Stages stages) {
    auto data = std::make_unique<Data>();
    Data& running = *data;
    running.work = std::move(work);
    std::unique_ptr<AsyncTransfer> transfer(new AsyncTransfer(std::move(data)));
    running.runner.run(std::move(stages), [&running] { running.work->finish(); });
    return transfer;
  }

  std::unique_ptr<TransferWork> work;
  StageRunner runner;  // destroyed first
};

}  // namespace v1
}  // namespace runel

#endif  // RUNEL_TRANSFER_RUNNING_H_
