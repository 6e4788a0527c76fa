// SPDX-License-Identifier: Apache-2.0
// A transfer is a list of stages.
#ifndef RUNEL_TRANSFER_STAGE_H_
#define RUNEL_TRANSFER_STAGE_H_

#include <cstddef>
#include <functional>
#include <memory>
#include <vector>

namespace runel {

/// One step of a transfer, with one way in and one way out.
class Stage {
 public:
  using Next = std::function<void()>;

  Stage() = default;
  virtual ~Stage() = default;
  Stage(const Stage&) = delete;
  Stage& operator=(const Stage&) = delete;

  /// Sends the requests of the stage. Calls @p next once when all of them are answered, which may
  /// be before this call returns. Does not call it if the transfer ends in this stage.
  virtual void start(Next next) = 0;
};

using Stages = std::vector<std::unique_ptr<Stage>>;

/// A stage of the transfer @p Work, which outlives it.
template <typename Work>
class StageOf : public Stage {
 public:
  explicit StageOf(Work& work) : work_(work) {}

 protected:
  [[nodiscard]] Work& work() const { return work_; }

 private:
  Work& work_;
};

/// Runs stages one after the other, and keeps them.
class StageRunner {
 public:
  /// Calls @p end after the last stage. To be called once; @p end must not destroy this object.
  void run(Stages stages, Stage::Next end);

 private:
  void proceed();

  Stages stages_;
  Stage::Next end_;
  std::size_t next_ = 0;
  bool ready_ = false;  // for the next stage
  bool looping_ = false;
};

}  // namespace runel

#endif  // RUNEL_TRANSFER_STAGE_H_
