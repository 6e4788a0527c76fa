// SPDX-License-Identifier: Apache-2.0
#include "fleet/fleet.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <new>
#include <optional>
#include <utility>

#include <nlohmann/json.hpp>

#include "client/fleet/clean_up.h"

#include "fleet/line_stream.h"
#include "fleet/output_guard.h"

namespace runelctl {
namespace {

// The pause before the first retry.
constexpr runel::Milliseconds kRetryPause{500};
// Bytes of a frame in the human-readable output of a dry run.
constexpr std::size_t kMostPayloadShown = 400;
constexpr std::chrono::seconds kWatchPause{1};
// How long notes wait for equal ones of other devices.
constexpr runel::Milliseconds kNotesPause{200};
// How long ending the programs may take when standard output is lost.
constexpr runel::Milliseconds kEndingTime{10000};
// The default with several devices.
constexpr int kFleetDeadline = 600;
constexpr char kUnknown[] = "it is unknown whether the task ran: check, then run it again";
constexpr char kHasRun[] = "not repeated, because a task of the command has run";

// The limit that a user chose for each attempt on a device, whose timeouts in the inventory are
// @p own. In seconds, 0 for none.
std::optional<double> chosenDeadline(const Settings& settings, const Timeouts& own) {
  return own.deadline ? own.deadline : settings.deadline;
}

// The limit for each attempt on such a device, in seconds, 0 for none.
double deadlineOf(const Settings& settings, const Command& command, const Timeouts& own) {
  const std::optional<double> chosen = chosenDeadline(settings, own);
  if (chosen || settings.targets.size() < 2) {
    return chosen.value_or(0);
  }
  double allowed = command.allowedTime(settings);
  if (own.program && command.programLimit(settings)) {
    allowed = std::max<double>(allowed, *own.program);
  }
  return allowed > 0
             ? std::max<double>(kFleetDeadline, allowed + 2 * own.io.value_or(settings.ioTimeout))
             : kFleetDeadline;
}

// The default deadline of a transfer is about its silence: see Fleet::watch.
bool limitsSilence(const Settings& settings, const Command& command, const Timeouts& own) {
  return command.transfers() && settings.targets.size() > 1 && !chosenDeadline(settings, own);
}

runel::Milliseconds fromSecondsUp(double seconds) {
  return std::chrono::ceil<runel::Milliseconds>(std::chrono::duration<double>(seconds));
}

std::optional<runel::Milliseconds> deadlineOption(const Settings& settings, const Command& command,
                                                  const Timeouts& own) {
  const double deadline = deadlineOf(settings, command, own);
  return deadline > 0 && !limitsSilence(settings, command, own)
             ? std::make_optional(fromSecondsUp(deadline))
             : std::nullopt;
}

Error deadlineError(const Settings& settings, const Command& command,
                    const runel::Address& target) {
  const Timeouts own = settings.ownTimeouts(target);
  const std::string usual = "the default with several devices is " +
                            std::to_string(std::lround(deadlineOf(settings, command, own))) +
                            " s: see --deadline";
  return {Fault::timedOut, "deadline exceeded", chosenDeadline(settings, own) ? "" : usual,
          ETIMEDOUT};
}

// For devices whose timeouts the inventory sets.
void setOwnTimeouts(const Settings& settings, const Command& command,
                    runel::FleetOptions& options) {
  for (std::size_t index = 0; index < settings.targets.size(); ++index) {
    const runel::Address& target = settings.targets[index];
    const Timeouts own = settings.ownTimeouts(target);
    if (own.empty()) {
      continue;
    }
    runel::DeviceOptions device = settings.limits(target);
    device.setRetries(settings.retry, kRetryPause);
    options.setDevice(index, device);
    options.setDeadline(index, deadlineOption(settings, command, own));
  }
}

runel::FleetOptions optionsFor(const Settings& settings, const Command& command) {
  const bool sequential = command.sequential() && !settings.jobsGiven;
  runel::DeviceOptions device = settings.limits();
  device.setRetries(settings.retry, kRetryPause);
  runel::FleetOptions options;
  options.setParallel(sequential ? 1 : static_cast<std::size_t>(settings.jobs))
      .setMaxFailures(static_cast<std::size_t>(settings.maxFail))
      .setFailFast(settings.failFast)
      .setDevice(device);
  (void)options.setWaves(settings.wave);  // the text is valid: it was checked before
  options.setDeadline(deadlineOption(settings, command, Timeouts()));
  setOwnTimeouts(settings, command, options);
  return options;
}

}  // namespace

// One device of the run.
struct Fleet::Member {
  explicit Member(runel::Address device) : target(std::move(device)) {}

  runel::Address target;
  std::optional<Report> report{};
  std::optional<Outcome> outcome{};  // of the job of the last attempt
  Attempt* attempt = nullptr;        // the running one
  // Of the last attempt, if it failed:
  bool unknown = false;                       // whether one of its tasks ran
  bool notRepeated = false;                   // because a task may have run
  std::optional<runel::LongTask> longTask{};  // which the device continues
  std::string remainder{};                    // of a job that was ended from outside
  bool succeeded = false;
  // With --prefix: lines of standard output and standard error that are not complete.
  std::optional<LineStream> lines{};
  std::optional<LineStream> errorLines{};
};

// One attempt of the command on one device.
class Fleet::Attempt : public runel::FleetJob {
 public:
  Attempt(Fleet& fleet, Member& member, runel::FleetAttempt attempt)
      : fleet_(fleet),
        member_(member),
        attempt_(std::move(attempt)),
        inDoubt_(attempt_.device.inDoubt()) {
    member_.attempt = this;
    fleet_.awaited_.enter(attempt_.index, member_.target.name(), attempt_.device,
                          runel::Clock::now());
    job_ = fleet_.command_.job({fleet_.loop_, attempt_.device, *member_.report, fleet_.settings_,
                                [this](Outcome outcome) { done(std::move(outcome)); }});
  }

  ~Attempt() override {
    member_.attempt = nullptr;
    fleet_.awaited_.leave(attempt_.index);
  }

  void start() override {
    job_->start();
    if (fleet_.settings_.dryRun) {
      fleet_.showSentLater(member_, *job_);
      done({});
    }
  }

  [[nodiscard]] std::optional<runel::Request> cleanUp() const override { return job_->cleanUp(); }

  // Closes the connection: a part of a request would keep the device from serving another one.
  // Returns the request that removes what the job leaves.
  [[nodiscard]] std::optional<runel::Request> abandon() const {
    auto request = cleanUp();
    attempt_.device.abandon();
    return request;
  }

  // Returns whether the job deals with the signal, or has ended.
  [[nodiscard]] bool interrupt(int number) { return member_.outcome || job_->interrupt(number); }
  [[nodiscard]] bool endProgram() { return member_.outcome || job_->endProgram(); }
  void cancel() const {
    attempt_.finish(runel::Error(runel::Kind::local, runel::Cause::cancelled, "cancelled"));
  }

  [[nodiscard]] bool mayRepeat(const runel::Error& error, bool safe) const override {
    if (!job_->knowsOutcome()) {
      member_.unknown = !job_->resumes() && attempt_.device.inDoubt() > inDoubt_;
      member_.longTask = attempt_.device.longTask();
    }
    member_.remainder = member_.outcome ? "" : job_->remainder();
    if (error.cause() == runel::Cause::cancelled) {
      return false;
    }
    const bool transient = member_.outcome
                               ? member_.outcome->error && member_.outcome->error->transient
                               : error.transient();
    const bool allowed = safe || job_->resumes() || fleet_.settings_.retryUnsafe;
    member_.notRepeated = transient && !allowed && fleet_.settings_.retry > 0;
    return transient && allowed;
  }

  /// Ends an attempt whose device has been silent for too long.
  void endSilent() {
    const Settings& settings = fleet_.settings_;
    const Timeouts own = settings.ownTimeouts(member_.target);
    if (limitsSilence(settings, fleet_.command_, own) &&
        attempt_.device.silence() >= fromSecondsUp(deadlineOf(settings, fleet_.command_, own))) {
      const Error late = deadlineError(settings, fleet_.command_, member_.target);
      done({exitStatusOf(late), late});
    }
  }

 private:
  // The fleet reads the exact outcome from the member.
  void done(Outcome outcome) {
    if (member_.outcome) {
      return;
    }
    member_.outcome = std::move(outcome);
    attempt_.finish(member_.outcome->status == 0
                        ? runel::Result<runel::Reply>(runel::Reply())
                        : runel::Error(runel::Kind::device, runel::Cause::other, "failed"));
  }

  Fleet& fleet_;
  Member& member_;
  const runel::FleetAttempt attempt_;
  const std::size_t inDoubt_;  // a lent device has served others before
  std::unique_ptr<Job> job_;
};

Fleet::Fleet(runel::Loop& loop, const Settings& settings, Command& command, Printer& printer,
             const Style& style)
    : loop_(loop),
      settings_(settings),
      command_(command),
      printer_(printer),
      style_(style),
      progress_(settings.targets.size()),
      fleet_(loop, settings.targets, optionsFor(settings, command)) {
  for (const runel::Address& target : settings.targets) {
    members_.push_back(std::make_unique<Member>(target));
  }
}

Fleet::~Fleet() {
  loop_.cancel(notesDue_);
  loop_.cancel(endingLimit_);
}

int Fleet::run() {
  runel::AsyncFleet::Handlers handlers;
  handlers.finished = [this](const runel::FleetResult& result) { conclude(result); };
  handlers.done = [this](const runel::FleetReport&) { over_ = true; };
  handlers.waveEnded = [this](std::size_t wave, std::size_t failed, bool stopped) {
    endWave(wave, failed, stopped);
  };
  fleet_.run([this](runel::FleetAttempt attempt) { return start(std::move(attempt)); },
             std::move(handlers));
  if (command_.streams()) {
    printer_.outliveOutput();
    const OutputGuard guard(loop_, [this] { printer_.loseOutput(EPIPE); });
    runToEnd();
  } else {
    runToEnd();
  }
  if (printer_.outputLost()) {
    printer_.endWithoutOutput();
  }
  showNotes();
  printer_.statusLine().clear();
  printer_.flush();
  int status = std::max(cancelled_, printer_.status());
  for (const Finished& end : ends_) {
    status = std::max(status, end.outcome.status);
  }
  return status;
}

void Fleet::runToEnd() {
  try {
    while (!over_) {
      turn();
    }
  } catch (const std::bad_alloc&) {
    removeLeftovers();
    throw;
  }
}

void Fleet::turn() {
  loop_.turn(runel::Milliseconds(1000));
  if (printer_.outputLost() && !over_) {
    endPrograms();
  }
  watch();
  showProgress(over_);
}

// In a separate loop: the other one may have lost calls with the exception.
void Fleet::removeLeftovers() const {
  runel::Loop loop;
  loop.setResolver(runel::blockingResolver());
  std::vector<std::unique_ptr<runel::CleanUp>> removals;
  std::size_t left = 0;
  for (const auto& member : members_) {
    auto request = member->attempt != nullptr ? member->attempt->abandon() : std::nullopt;
    if (request) {
      ++left;
      removals.push_back(
          std::make_unique<runel::CleanUp>(loop, member->target, settings_.limits(member->target),
                                           *std::move(request), [&left] { --left; }));
    }
  }
  while (left > 0) {
    loop.turn(runel::Milliseconds(1000));
  }
}

std::unique_ptr<runel::FleetJob> Fleet::start(runel::FleetAttempt attempt) {
  Member& member = *members_[attempt.index];
  started_ += attempt.number == 1 ? 1 : 0;
  member.outcome.reset();
  member.unknown = member.notRepeated = false;
  member.longTask.reset();
  member.remainder.clear();
  openReport(member, attempt.index);
  if (settings_.dryRun) {
    attempt.device.setDryRun(
        [this, &member](const std::string& payload) { showUnsent(member, payload); });
  }
  return std::make_unique<Attempt>(*this, member, std::move(attempt));
}

void Fleet::openReport(Member& member, std::size_t index) {
  const std::string& name = member.target.name();
  member.report.emplace(style_, openingObject(name, command_.task()), settings_.spool);
  member.report->onNote = [this, index](const std::string& text) { addNote(index, text); };
  if (command_.streams()) {
    streamReport(member);
  } else if (members_.size() == 1 && settings_.retry == 0) {
    member.report->stream = [this, name](std::string_view bytes) { printer_.stream(name, bytes); };
  }
  if (!printer_.statusLine().enabled()) {
    return;
  }
  progress_.begin(index);
  member.report->onProgress = [this, index](const Progress& progress) {
    if (members_.size() == 1) {
      printer_.statusLine().show(bar_.text(progress, terminalColumns()));
    } else {
      progress_.update(index, progress);
    }
  };
}

// Output of a running program, which is not repeated: a job that has begun to print has run. With
// several devices, only prefixed lines and objects can be told apart.
void Fleet::streamReport(Member& member) {
  Report& report = *member.report;
  const std::string name = member.target.name();
  report.entryStream = [this, name](const std::string& line) { printer_.showEntry(name, line); };
  report.onText = [this, name](bool error, std::string_view bytes) {
    printer_.keepText(name, error, bytes);
  };
  if (members_.size() == 1) {
    report.stream = [this](std::string_view bytes) { printer_.show(bytes); };
    report.errorStream = [this](std::string_view bytes) { printer_.showError(bytes); };
  } else if (settings_.arrange == Arrange::prefix) {
    member.lines.emplace([this, name](const std::string& text) { printer_.showLines(name, text); });
    member.errorLines.emplace(
        [this, name](const std::string& text) { printer_.showErrorLines(name, text); });
    report.stream = [&member](std::string_view bytes) { member.lines->add(bytes); };
    report.errorStream = [&member](std::string_view bytes) { member.errorLines->add(bytes); };
  }
}

// With several devices, the printer adds the names.
void Fleet::showUnsent(Member& member, const std::string& payload) const {
  const std::string shown = terminalSafe(payload.substr(0, kMostPayloadShown));
  const bool cut = payload.size() > kMostPayloadShown;
  member.report->line((members_.size() == 1 ? terminalSafe(member.target.name()) + " " : "") +
                      "<- " + shown +
                      (cut ? "... (" + countText(payload.size(), "byte") + ")" : ""));
  member.report->entry([&] {
    Json object{{"entry", "frame"}};
    putBytes(object, "payload", payload);
    return object;
  });
}

void Fleet::showSentLater(Member& member, const Job& job) const {
  const std::string text = job.sentLater();
  member.report->result()["dry_run"] = true;
  if (!text.empty()) {
    member.report->line("   then, depending on the answers: " + terminalSafe(text));
    member.report->entry([&] {
      Json object{{"entry", "later"}};
      putBytes(object, "text", text);
      return object;
    });
  }
}

// A deadline and a cancellation end an attempt from outside its job.
Outcome Fleet::outcomeOf(const Member& member, const runel::FleetResult& result) const {
  if (result.reply) {
    return {};
  }
  const runel::Error& error = result.reply.error();
  if (error.cause() == runel::Cause::cancelled) {
    return {cancelled_, Error(Fault::cancelled, "interrupted")};
  }
  if (error.cause() == runel::Cause::deadline || !member.outcome) {
    const Error late = deadlineError(settings_, command_, member.target);
    return {exitStatusOf(late), late};
  }
  return *member.outcome;
}

// Says whether the command ran, and what the device does now.
void Fleet::explain(Member& member, Error& error) const {
  error.unknown = member.unknown;
  const bool left = error.fault == Fault::cancelled || error.fault == Fault::timedOut;
  if (left && !member.remainder.empty()) {
    error.advise(member.remainder);
  }
  if (left && member.longTask) {
    error.advise(continuesText(*member.longTask));
    Json& result = member.report->result();
    const bool exec = member.longTask->task == "exec";
    putBytes(result, "continues", exec ? member.longTask->program : member.longTask->task);
    if (const auto seconds = secondsLeft(*member.longTask)) {
      result["continues_s"] = *seconds;
    }
  } else if (member.unknown) {
    error.advise(kUnknown);
  } else if (member.notRepeated) {
    error.advise(kHasRun);
  }
}

void Fleet::conclude(const runel::FleetResult& result) {
  Member& member = *members_[result.index];
  awaited_.end(result.index, runel::Clock::now());
  Outcome outcome = outcomeOf(member, result);
  if (outcome.error) {
    explain(member, *outcome.error);
    showNotes();
  }
  if (member.lines) {
    member.lines->end();
    member.errorLines->end();
  }
  member.succeeded = outcome.status == 0;
  failed_ += member.succeeded ? 0 : 1;
  ends_.push_back({member.target.name(), std::move(outcome), result.index});
  progress_.end(result.index);
  printer_.finished(ends_.back(), *member.report);
  member.report.reset();
}

void Fleet::endWave(std::size_t wave, std::size_t failed, bool stopped) {
  if (stopped) {
    printer_.note("stopped after wave " + std::to_string(wave) + ": " +
                  countText(failed, "device") + " failed: " + printer_.failedNames());
  }
}

void Fleet::interrupt(int number) {
  std::vector<Attempt*> others;
  bool dealt = false;
  for (const auto& member : members_) {
    if (member->attempt != nullptr && member->attempt->interrupt(number)) {
      dealt = true;
    } else if (member->attempt != nullptr) {
      others.push_back(member->attempt);
    }
  }
  if (!dealt || !others.empty() || started_ < members_.size()) {
    cancelled_ = kExitSignalBase + number;
  }
  if (!dealt) {
    fleet_.cancel();
    return;
  }
  fleet_.startNoFurther();
  for (const Attempt* attempt : others) {
    attempt->cancel();
  }
}

// The output has no reader any more: ends the programs that this run has started.
void Fleet::endPrograms() {
  if (std::exchange(ending_, true)) {
    return;
  }
  fleet_.startNoFurther();
  for (const auto& member : members_) {
    if (member->attempt != nullptr && !member->attempt->endProgram()) {
      member->attempt->cancel();
    }
  }
  endingLimit_ = loop_.after(kEndingTime, [this] { fleet_.cancel(); });
}

// Several devices often have the same to tell at nearly the same time.
void Fleet::addNote(std::size_t index, const std::string& text) {
  if (notes_.empty() && members_.size() > 1) {
    notesDue_ = loop_.after(kNotesPause, [this] { showNotes(); });
  }
  notes_.add(index, members_[index]->target.name(), text);
  if (members_.size() == 1) {
    showNotes();
  }
}

void Fleet::showNotes() {
  loop_.cancel(notesDue_);
  for (const std::string& line : notes_.take()) {
    printer_.note(line);
  }
}

// Looks at the running devices, once a second.
void Fleet::watch() {
  const runel::Clock::time_point now = runel::Clock::now();
  if (now - watched_ < kWatchPause) {
    return;
  }
  watched_ = now;
  for (const auto& member : members_) {
    if (member->attempt != nullptr) {
      member->attempt->endSilent();
    }
  }
  const std::string before = std::exchange(
      awaitedText_, members_.size() == 1 ? awaited_.stateOfOne() : awaited_.text(now));
  if (!before.empty() && awaitedText_.empty()) {
    printer_.statusLine().clear();
  }
  if (awaited_.allLate(now)) {
    printer_.flush();
  }
}

void Fleet::showProgress(bool now) {
  if (members_.size() == 1) {
    if (!over_ && !awaitedText_.empty()) {
      printer_.statusLine().show(terminalSafe(members_.front()->target.name()) + ": " +
                                 awaitedText_);
    }
    return;
  }
  const std::size_t running = started_ - ends_.size();
  const std::string bytes = progress_.text(runel::Clock::now());
  printer_.statusLine().show(std::to_string(ends_.size() - failed_) + " done, " +
                                 std::to_string(failed_) + " failed, " + std::to_string(running) +
                                 " running, " + std::to_string(members_.size() - started_) +
                                 " waiting" + (bytes.empty() ? "" : "; " + bytes) +
                                 (awaitedText_.empty() ? "" : "; awaiting " + awaitedText_),
                             now);
}

std::vector<std::string> Fleet::skipped() const {
  std::vector<bool> ended(members_.size());
  for (const Finished& end : ends_) {
    ended[end.index] = true;
  }
  std::vector<std::string> names;
  for (std::size_t index = 0; index < members_.size(); ++index) {
    if (!ended[index]) {
      names.push_back(members_[index]->target.name());
    }
  }
  return names;
}

std::vector<runel::Address> Fleet::unfinished() const {
  std::vector<runel::Address> targets;
  for (const auto& member : members_) {
    if (!member->succeeded) {
      targets.push_back(member->target);
    }
  }
  return targets;
}

}  // namespace runelctl
