// SPDX-License-Identifier: Apache-2.0
// The command `probe`, a plugin for monitoring systems: one line, and an exit status of 0 to 3.
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <unordered_set>
#include <utility>
#include <vector>

#include <CLI/CLI.hpp>

#include <runel/fleet.h>

#include "cli/command_line.h"
#include "cli/local_command.h"
#include "commands/number_range.h"
#include "commands/size_range.h"
#include "output/report.h"
#include "output/standard_output.h"
#include "probe/assessment.h"
#include "probe/background_resolver.h"
#include "probe/exposition.h"
#include "probe/facts.h"
#include "probe/number_text.h"
#include "probe/probe_job.h"

namespace runelctl {
namespace {

constexpr double kUsualDeadline = 10;
constexpr double kMostSeconds = 86400.0 * 365 * 100;
constexpr std::uint64_t kMostSize = std::uint64_t{1} << 50U;

runel::Milliseconds fromSecondsUp(double seconds) {
  return std::chrono::ceil<runel::Milliseconds>(std::chrono::duration<double>(seconds));
}

// In seconds since 1970.
double wallClock() {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  return std::chrono::duration<double>(now).count();
}

// Whether the failure tells nothing of the device.
bool isOfThisHost(const runel::Error& error) {
  return error.kind() == runel::Kind::local || error.cause() == runel::Cause::resolve ||
         error.cause() == runel::Cause::noMaster;
}

// Asks all devices in one loop.
class ProbeRun {
 public:
  ProbeRun(const Settings& settings, const ProbePlan& plan)
      : settings_(settings),
        plan_(plan),
        facts_(settings.targets.size()),
        connected_(std::make_unique<bool[]>(settings.targets.size())) {}

  // The facts of all devices, in their order.
  [[nodiscard]] std::vector<Facts> run() {
    runel::Loop loop;
    const BackgroundResolver resolver(loop);
    runel::AsyncFleet fleet(loop, settings_.targets, options());
    runel::AsyncFleet::Handlers handlers;
    handlers.finished = [this](const runel::FleetResult& result) { conclude(result); };
    handlers.done = [&loop](const runel::FleetReport&) { loop.stop(); };
    fleet.run(
        [this](runel::FleetAttempt attempt) -> std::unique_ptr<runel::FleetJob> {
          const std::size_t index = attempt.index;
          return std::make_unique<ProbeJob>(std::move(attempt), plan_, facts_[index],
                                            connected_[index]);
        },
        std::move(handlers));
    loop.run();
    return std::move(facts_);
  }

 private:
  // In seconds, 0 for none.
  [[nodiscard]] double deadlineOf(const runel::Address& target) const {
    return settings_.ownTimeouts(target).deadline.value_or(
        settings_.deadline.value_or(kUsualDeadline));
  }

  [[nodiscard]] runel::FleetOptions options() const {
    runel::FleetOptions options;
    options.setParallel(static_cast<std::size_t>(settings_.jobs));
    for (std::size_t index = 0; index < settings_.targets.size(); ++index) {
      const runel::Address& target = settings_.targets[index];
      const double deadline = deadlineOf(target);
      options.setDevice(index, settings_.limits(target));
      options.setDeadline(
          index, deadline > 0 ? std::make_optional(fromSecondsUp(deadline)) : std::nullopt);
    }
    return options;
  }

  void conclude(const runel::FleetResult& result) {
    Facts& facts = facts_[result.index];
    if (!result.reply) {
      facts = Facts();
      facts.failure = failureOf(result);
      facts.undecided = isOfThisHost(result.reply.error());
    }
    facts.device = settings_.targets[result.index].name();
    facts.time = wallClock();
  }

  [[nodiscard]] Error failureOf(const runel::FleetResult& result) const {
    Error error = result.reply.error();
    if (result.reply.error().cause() == runel::Cause::deadline) {
      const double deadline = deadlineOf(settings_.targets[result.index]);
      const bool connected = connected_[result.index];
      error.what = std::string(connected ? "no answer within " : "no connection within ") +
                   shortText(deadline) + " s";
      error.hint = connected ? "the daemon may be busy" : "";
    }
    return error;
  }

  const Settings& settings_;
  const ProbePlan& plan_;
  std::vector<Facts> facts_;
  std::unique_ptr<bool[]> connected_;  // whether a request was sent, by device
};

Json objectOf(const Facts& facts, const Assessment& assessment) {
  Json object = openingObject(facts.device, "probe");
  object["ok"] = assessment.state == ProbeState::ok;
  object["status"] = static_cast<int>(assessment.state);
  object["state"] = nameOf(assessment.state);
  object["text"] = assessment.text;
  const auto put = [&object](const char* key, const std::optional<double>& value) {
    if (value) {
      object[key] = *value;
    }
  };
  put("round_trip_s", facts.roundTrip);
  put("uptime_s", facts.uptime);
  put("restart_age_s", facts.restartAge);
  if (facts.version) {
    object["version"] = *facts.version;
  }
  if (facts.failure) {
    putError(object, *facts.failure);
  }
  return object;
}

std::string objectsOf(const Facts& facts, const Assessment& assessment, bool terminal) {
  std::string lines;
  for (const FreeSpace& free : facts.free) {
    if (free.bytes) {
      Json object = openingObject(facts.device, "probe");
      object["entry"] = "filesystem";
      putBytes(object, "path", free.path);
      object["free_bytes"] = *free.bytes;
      lines += jsonLine(object, terminal);
    }
  }
  return lines + jsonLine(objectOf(facts, assessment), terminal);
}

Json openingOfAll() {
  return {{"v", kJsonVersion}, {"task", "probe"}};
}

std::string failureObject(const std::string& what, bool terminal) {
  Json object = openingOfAll();
  object["ok"] = false;
  object["status"] = static_cast<int>(ProbeState::unknown);
  object["state"] = nameOf(ProbeState::unknown);
  putError(object, {Fault::local, what});
  return jsonLine(object, terminal);
}

std::string summaryObject(const std::vector<Assessment>& assessments, bool terminal) {
  const auto count = [&](ProbeState state) {
    return std::count_if(assessments.begin(), assessments.end(),
                         [state](const Assessment& one) { return one.state == state; });
  };
  Json object = openingOfAll();
  object["summary"] = {{"ok", count(ProbeState::ok)},
                       {"warning", count(ProbeState::warning)},
                       {"critical", count(ProbeState::critical)},
                       {"unknown", count(ProbeState::unknown)}};
  return jsonLine(object, terminal);
}

// A name that several devices have would be a series of two values.
std::string repeatedName(const std::vector<runel::Address>& targets) {
  std::unordered_set<std::string> names;
  for (const runel::Address& target : targets) {
    if (!names.insert(target.name()).second) {
      return target.name();
    }
  }
  return "";
}

class ProbeCommand : public LocalCommand {
 public:
  ProbeCommand() : LocalCommand("probe", "check devices as a plugin of a monitoring system") {}

  void define(CLI::App& app) override {
    addSeconds(app, "--warning-rtt", thresholds_.roundTrip.warning,
               "WARNING above this round-trip time (default: 1)");
    addSeconds(app, "--critical-rtt", thresholds_.roundTrip.critical,
               "CRITICAL above this round-trip time (default: 5)");
    addSize(app, "--warning-free", thresholds_.free.warning,
            "WARNING below this free space, such as 20M (default: none)");
    addSize(app, "--critical-free", thresholds_.free.critical,
            "CRITICAL below this free space (default: none)");
    addSeconds(app, "--warning-restart", thresholds_.restart.warning,
               "WARNING if the daemon was started less than SECONDS ago (default: none)");
    addSeconds(app, "--critical-restart", thresholds_.restart.critical,
               "CRITICAL if the daemon was started less than SECONDS ago (default: none)");
    app.add_option("--path", paths_,
                   "remote path on the file system whose free space is checked; repeatable "
                   "(default: /)")
        ->allow_extra_args(false)
        ->type_name("REMOTE");
    app.add_option("--version-file", plan_.versionFile,
                   "remote file with the version (default: /usr/share/runeld/version)")
        ->type_name("REMOTE");
    app.add_option("--prometheus", file_,
                   "also write the result as metrics to FILE, in the directory of node_exporter's "
                   "textfile collector")
        ->type_name("FILE");
  }

  [[nodiscard]] Devices devices() const override { return Devices::usual; }

  std::string check(const Settings& settings) override {
    if (settings.dryRun) {
      return "probe: --dry-run is not supported";
    }
    std::string wrong = checkOrder("rtt", thresholds_.roundTrip, false);
    wrong += wrong.empty() ? checkOrder("free", thresholds_.free, true) : "";
    wrong += wrong.empty() ? checkOrder("restart", thresholds_.restart, true) : "";
    return wrong;
  }

  [[nodiscard]] std::optional<int> refuse(const std::string& what, bool json) const override {
    const Style style = styleFor(json, false, "never");
    const std::string line = Headline{ProbeState::unknown, pluginText(what)}.line() + "\n";
    (void)writeOut(style, json ? failureObject(what, style.outTerminal) : line);
    return static_cast<int>(ProbeState::unknown);
  }

  int run(const Settings& settings, const Style& style) override {
    try {
      return probe(settings, style);
    } catch (const std::bad_alloc&) {
      return *refuse("out of memory", style.json);
    }
  }

 private:
  static void addSeconds(CLI::App& app, const char* name, std::optional<double>& value,
                         const char* help) {
    app.add_option(name, value, help)->check(numberRange(0.0, kMostSeconds))->type_name("SECONDS");
  }

  static void addSize(CLI::App& app, const char* name, std::optional<double>& value,
                      const char* help) {
    app.add_option(name, value, help)->transform(sizeRange(0, kMostSize))->type_name("SIZE");
  }

  // A warning must come before the critical state. @p falling: with falling values.
  static std::string checkOrder(const std::string& what, const Limits& limits, bool falling) {
    const double sign = falling ? -1 : 1;
    if (!limits.warning || !limits.critical || sign * *limits.warning <= sign * *limits.critical) {
      return "";
    }
    return "--warning-" + what + " " + shortText(*limits.warning) + ": expected at " +
           (falling ? "least" : "most") + " the value of --critical-" + what + ", " +
           shortText(*limits.critical);
  }

  [[nodiscard]] int probe(const Settings& settings, const Style& style) {
    const std::string repeated = repeatedName(settings.targets);
    if (!repeated.empty()) {
      return *refuse("several devices have the name " + repeated, style.json);
    }
    takePaths(settings);
    const std::vector<Facts> facts = ProbeRun(settings, plan_).run();
    std::vector<Assessment> assessments;
    for (const Facts& one : facts) {
      assessments.push_back(assess(one, thresholds_));
    }
    const int error = file_.empty() ? 0 : replaceMetricsFile(file_, metricsText(facts));
    const std::string problem =
        error == 0 ? "" : "cannot write " + file_ + ": " + runel::systemText(error);
    return tell(style, facts, assessments, problem);
  }

  // Relative to the remote directory of a shell. A path that is given twice counts once.
  void takePaths(const Settings& settings) {
    std::unordered_set<std::string> known;
    if (!paths_.empty()) {
      plan_.paths.clear();
    }
    for (const std::string& path : paths_) {
      if (known.insert(path).second) {
        plan_.paths.push_back(settings.remote(path));
      }
    }
    plan_.versionFile = settings.remote(plan_.versionFile);
  }

  [[nodiscard]] int tell(const Style& style, const std::vector<Facts>& facts,
                         const std::vector<Assessment>& assessments,
                         const std::string& problem) const {
    Headline headline = headlineOf(facts, assessments);
    if (!problem.empty()) {
      headline.state = ProbeState::unknown;
      headline.text = pluginText(problem) + "; " + headline.text;
    }
    const std::string text = style.json ? jsonText(style, facts, assessments, problem)
                                        : plainText(style, facts, assessments, headline);
    if (!writeOut(style, text)) {
      complain("standard output: " + runel::systemText(errno));
      return static_cast<int>(ProbeState::unknown);
    }
    return static_cast<int>(headline.state);
  }

  [[nodiscard]] static std::string jsonText(const Style& style, const std::vector<Facts>& facts,
                                            const std::vector<Assessment>& assessments,
                                            const std::string& problem) {
    std::string text;
    for (std::size_t index = 0; index < facts.size(); ++index) {
      text += objectsOf(facts[index], assessments[index], style.outTerminal);
    }
    text += problem.empty() ? "" : failureObject(problem, style.outTerminal);
    return text + (facts.size() > 1 ? summaryObject(assessments, style.outTerminal) : "");
  }

  // With --quiet, only devices that are not OK have their own line.
  [[nodiscard]] static std::string plainText(const Style& style, const std::vector<Facts>& facts,
                                             const std::vector<Assessment>& assessments,
                                             const Headline& headline) {
    std::string text = headline.line() + "\n";
    for (std::size_t index = 0; facts.size() > 1 && index < facts.size(); ++index) {
      const bool told = !style.quiet || assessments[index].state != ProbeState::ok;
      text += told ? detailLine(facts[index], assessments[index]) + "\n" : "";
    }
    return text;
  }

  Thresholds thresholds_;
  std::vector<std::string> paths_;
  ProbePlan plan_;
  std::string file_;
};

}  // namespace

void addProbeCommand(LocalCommands& commands) {
  commands.push_back(std::make_unique<ProbeCommand>());
}

}  // namespace runelctl
