// SPDX-License-Identifier: Apache-2.0
// Asks one device for its facts.
#ifndef RUNELCTL_PROBE_PROBE_JOB_H_
#define RUNELCTL_PROBE_PROBE_JOB_H_

#include <string>
#include <vector>

#include <runel/fleet.h>
#include <runel/loop.h>
#include <runel/request.h>

#include "commands/installed_version.h"
#include "probe/facts.h"

namespace runelctl {

/// What to ask for besides the facts of every probe.
struct ProbePlan {
  std::vector<std::string> paths{"/"};  ///< of file systems, on the device
  std::string versionFile = kVersionFile;
};

/// Runs no program on the device and changes nothing. A fact that the device does not tell stays
/// without a value. Fails if one request is not answered.
class ProbeJob : public runel::FleetJob {
 public:
  /// The job stores in @p facts, which must outlive it like @p plan.
  ProbeJob(runel::FleetAttempt attempt, const ProbePlan& plan, Facts& facts, bool& connected);
  ~ProbeJob() override;

  void start() override;

 private:
  // Sends @p request. The end of the job if it is not answered, otherwise @p handler.
  void ask(const runel::Request& request, runel::ReplyHandler handler);
  void measure();
  void askFacts();
  void askFree(std::size_t index);
  void askVersion();
  void finish();

  const runel::FleetAttempt attempt_;
  const ProbePlan& plan_;
  Facts& facts_;
  bool& connected_;
  runel::Clock::time_point sent_;
  std::vector<double> times_;
  std::vector<std::uint64_t> blockSizes_;  // of the file systems of `plan_`, 0 if unknown
  std::optional<double> started_;          // the daemon, in seconds after the boot
};

}  // namespace runelctl

#endif  // RUNELCTL_PROBE_PROBE_JOB_H_
