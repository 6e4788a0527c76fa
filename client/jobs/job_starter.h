// SPDX-License-Identifier: Apache-2.0
// Starts a job, exactly once, also over a connection that is lost meanwhile.
#ifndef RUNEL_JOBS_JOB_STARTER_H_
#define RUNEL_JOBS_JOB_STARTER_H_

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "client/jobs/job_link.h"
#include "client/jobs/job_requests.h"

namespace runel {

/// A request whose outcome is unknown is repeated: the ID is a test-and-set, so the program is
/// started once. The token in the directory then shows whether an earlier request did it.
class JobStarter {
 public:
  struct Handlers {
    /// `JobAnswer::done`: this object has started the job. `exists`: another has. With an
    /// error for all but `done`. Called once.
    std::function<void(JobAnswer answer, const std::optional<Error>& error)> done;
    /// The connection was lost, and will be tried again. May be empty.
    std::function<void(const Error& error)> lost;
  };

  /// Sends @p input, if any, before the program starts. Gives up when no answer has come for
  /// @p limit. @p device outlives this object.
  JobStarter(AsyncDevice& device, JobPlace place, JobPlan plan,
             std::shared_ptr<const std::string> input, Milliseconds limit, Handlers handlers);
  JobStarter(const JobStarter&) = delete;
  JobStarter& operator=(const JobStarter&) = delete;

  /// Sends the first request.
  void start() { step(); }

 private:
  enum class Step { make, look, send, run };

  void step();
  void make(JobStart part, Step next);
  void made(const Reply& reply, Step next);
  void look();
  void send();
  void sent(const Reply& reply, std::size_t bytes);
  void drop(const Error& error);
  void lost(const Error& error);
  [[nodiscard]] static JobPlan withToken(JobPlan plan);
  void finish(JobAnswer answer, const std::optional<Error>& error);

  const JobPlace place_;
  const JobPlan plan_;
  const std::shared_ptr<const std::string> input_;
  const Handlers handlers_;
  JobLink link_;
  Step step_ = Step::make;
  std::size_t offset_ = 0;
};

}  // namespace runel

#endif  // RUNEL_JOBS_JOB_STARTER_H_
