// SPDX-License-Identifier: Apache-2.0
// Asks a device about a job, also after its connection was lost.
#ifndef RUNEL_JOBS_JOB_LINK_H_
#define RUNEL_JOBS_JOB_LINK_H_

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include <runel/async_device.h>
#include <runel/error.h>
#include <runel/loop.h>
#include <runel/request.h>

namespace runel {

/// Sends requests. When the connection is lost, their handlers are not called. Instead, after a
/// pause, the owner is told to ask again for what it needs.
class JobLink {
 public:
  struct Handlers {
    std::function<void()> resume;                    ///< ask again
    std::function<void(const Error& error)> failed;  ///< the end: no request is possible any more
    /// The connection was lost, and will be tried again. @p error tells what became of the first
    /// request that was not answered.
    std::function<void(const Error& error)> lost;
  };

  /// @p device outlives this object. Gives up when no answer has come for @p limit.
  JobLink(AsyncDevice& device, Milliseconds limit, Handlers handlers);
  ~JobLink();
  JobLink(const JobLink&) = delete;
  JobLink& operator=(const JobLink&) = delete;

  /// Sends @p request and calls @p answered with the device's reply, later.
  void ask(const Request& request, std::function<void(const Reply& reply)> answered);
  /// Calls @p call after @p time, unless the connection is lost before.
  void after(Milliseconds time, std::function<void()> call);
  /// Calls no handler any more.
  void stop();
  /// From now on a lost connection is tried again. Before, only after a request whose outcome is
  /// unknown.
  void keepTrying() { trying_ = true; }

  /// False from the loss of a connection to the next answer.
  [[nodiscard]] bool connected() const { return losses_ == 0; }

  [[nodiscard]] Loop& loop() const { return device_.loop(); }

 private:
  void lose(const Error& error);

  AsyncDevice& device_;
  const Milliseconds limit_;
  const Handlers handlers_;
  bool trying_ = false;
  int losses_ = 0;                // since the last answer
  std::uint64_t generation_ = 0;  // a loss makes the handlers of earlier requests obsolete
  Clock::time_point lastAnswer_;
  Timer timer_;
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

}  // namespace runel

#endif  // RUNEL_JOBS_JOB_LINK_H_
