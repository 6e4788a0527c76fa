// SPDX-License-Identifier: Apache-2.0
#include "commands/job_flags.h"

#include <cmath>
#include <cstddef>
#include <utility>

#include <CLI/CLI.hpp>

#include "commands/number_range.h"
#include "commands/read_input.h"
#include "commands/size_range.h"

namespace runelctl {
namespace {

constexpr int kMostJobDays = 36500;
constexpr std::size_t kIdDigits = 12;
constexpr double kLongestReconnect = 86400.0 * 365;

CLI::Option* needing(CLI::Option* option, CLI::Option* needed) {
  return needed == nullptr ? option : option->needs(needed);
}

}  // namespace

void JobFlags::defineDirectory(CLI::App& app, CLI::Option* needed) {
  needing(app.add_option("--job-directory", directory_,
                         "directory of the jobs on the device, which only root can change "
                         "(default: " +
                             std::string(runel::kJobsDirectory) + ")"),
          needed)
      ->type_name("DIR");
}

void JobFlags::defineReconnect(CLI::App& app, CLI::Option* needed) {
  needing(app.add_option("--reconnect", reconnect_,
                         "time without an answer after which a lost connection is given up "
                         "(default: 600)")
              ->check(numberRange(0.0, kLongestReconnect)),
          needed)
      ->type_name("SECONDS");
}

void JobFlags::defineStart(CLI::App& app, CLI::Option* needed) {
  needing(app.add_flag("--stdin", stdin_, "send standard input to the program"), needed);
  needing(app.add_option("--job-limit", limit_,
                         "output of each stream that the device keeps, such as 4M (default: 16M)")
              ->transform(sizeRange(4096, std::uint64_t{1} << 40U)),
          needed)
      ->type_name("BYTES");
  needing(app.add_option("--job-days", days_,
                         "remove finished jobs of runelctl after this time (default: 7)")
              ->check(numberRange(0, kMostJobDays)),
          needed)
      ->type_name("DAYS");
}

void JobFlags::defineNewId(CLI::App& app) {
  app.add_option("--id", id_,
                 "ID of the job; an existing one is not started again "
                 "(default: a new ID)")
      ->type_name("ID");
}

void JobFlags::defineId(CLI::App& app) {
  app.add_option("ID", id_)->required();
}

std::string JobFlags::check() const {
  if (!runel::isJobDirectory(directory_)) {
    return "--job-directory: '" + directory_ + "' is not an absolute path without '.' and '..'";
  }
  if (!id_.empty() && !runel::isJobId(id_)) {
    return "invalid ID '" + id_ + "': expected up to 100 letters, digits, '.', '_' and '-'";
  }
  return "";
}

std::optional<Error> JobFlags::prepare() {
  if (id_.empty()) {
    // Unique among the jobs of all users and times, and short enough to type.
    id_ = kJobPrefix + runel::newJobToken().substr(0, kIdDigits);
  }
  if (stdin_) {
    auto content = std::make_shared<std::string>();
    const std::string wrong = readInput(*content);
    if (!wrong.empty()) {
      return Error(Fault::local, wrong);
    }
    input_ = std::move(content);
  }
  return std::nullopt;
}

runel::JobPlan JobFlags::plan(std::vector<std::string> words, std::string workingDirectory,
                              int seconds) const {
  runel::JobPlan plan;
  plan.words = std::move(words);
  plan.workingDirectory = std::move(workingDirectory);
  plan.limit = limit_;
  plan.seconds = seconds;
  plan.sweepPrefix = kJobPrefix;
  plan.sweepDays = days_;
  return plan;
}

runel::Milliseconds JobFlags::reconnect() const {
  return runel::Milliseconds(static_cast<runel::Milliseconds::rep>(std::lround(reconnect_ * 1000)));
}

std::string attachLine(const std::string& device, const runel::JobPlace& place) {
  const std::string directory = place.directory == runel::kJobsDirectory
                                    ? ""
                                    : " --job-directory " + runel::commandText({place.directory});
  return "runelctl -d " + device + " job attach" + directory + " " + place.id;
}

}  // namespace runelctl
