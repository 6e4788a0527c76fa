// SPDX-License-Identifier: Apache-2.0
#include "fleet/fleet.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <optional>
#include <utility>

#include <nlohmann/json.hpp>

#include "fleet/waves.h"

namespace runelctl {
namespace {

// The pause before a retry, multiplied by the number of attempts so far.
constexpr runel::Milliseconds kRetryPause{500};
// Timeout for removing the files of an unfinished job. The device may be unreachable or busy.
constexpr runel::Milliseconds kCleanUpTime{3000};
// The device may still execute requests of the lost connection and create a removed file again. So
// the removal is repeated until the file is missing: at least kLeastLooks times, at most kMostLooks
// times.
constexpr runel::Milliseconds kLookAgain{250};
constexpr int kLeastLooks = 2;
constexpr int kMostLooks = 12;
// Bytes of a frame in the human-readable output of a dry run.
constexpr std::size_t kMostPayloadShown = 400;

}  // namespace

// One device of the run.
struct Fleet::Member {
  explicit Member(runel::Address itsTarget) : target(std::move(itsTarget)) {}

  runel::Address target;
  std::unique_ptr<runel::AsyncDevice> own;
  runel::AsyncDevice* device = nullptr;
  std::optional<Report> report;
  std::unique_ptr<Job> job;
  std::optional<Outcome> outcome;
  std::unique_ptr<runel::AsyncDevice> cleaner;
  runel::Timer deadline;
  runel::Timer pause;
  int attempts = 0;
  int looks = 0;  // attempts to remove a file of an unfinished job
  bool succeeded = false;
};

Fleet::Fleet(runel::Loop& loop, const Settings& settings, Command& command, Printer& printer,
             const Style& style)
    : loop_(loop), settings_(settings), command_(command), printer_(printer), style_(style) {
  for (const runel::Address& target : settings.targets) {
    members_.push_back(std::make_unique<Member>(target));
  }
  // The text is valid: it was checked with the other options.
  (void)parseWaves(settings.wave, members_.size(), waves_);
  waveEnd_ = waves_.empty() ? 0 : waves_.front();
}

Fleet::~Fleet() {
  for (const auto& member : members_) {
    drop(*member);
  }
}

std::size_t Fleet::parallel() const {
  if (command_.sequential() && !settings_.jobsGiven) {
    return 1;
  }
  return static_cast<std::size_t>(settings_.jobs);
}

bool Fleet::stopEarly() const {
  return cancelled_ != 0 || (settings_.failFast && failed_ > 0);
}

int Fleet::run() {
  startSome();
  while (running_ > 0 || (next_ < waveEnd_ && !stopEarly())) {
    loop_.turn(runel::Milliseconds(1000));
    showProgress(false);
  }
  printer_.statusLine().clear();
  std::vector<std::string> devices;
  for (const auto& member : members_) {
    devices.push_back(member->target.name());
  }
  printer_.flush(devices);
  int status = cancelled_;
  for (const Finished& end : ends_) {
    status = std::max(status, end.outcome.status);
  }
  return status;
}

void Fleet::startSome() {
  while (running_ < parallel() && next_ < waveEnd_ && !stopEarly()) {
    ++running_;
    start(*members_[next_++]);
  }
}

void Fleet::start(Member& member) {
  ++member.attempts;
  member.outcome.reset();
  member.report.emplace(style_);
  if (members_.size() == 1 && settings_.retry == 0) {
    member.report->stream = [this](std::string_view bytes) { printer_.stream(bytes); };
  }
  if (members_.size() == 1 && printer_.statusLine().enabled()) {
    member.report->onProgress = [this](const Progress& progress) {
      printer_.statusLine().show(bar_.text(progress, terminalColumns()));
    };
  }
  if (lent_ == nullptr) {
    member.own = std::make_unique<runel::AsyncDevice>(loop_, member.target, settings_.limits());
  }
  member.device = lent_ != nullptr ? lent_ : member.own.get();
  if (settings_.dryRun) {
    member.device->setDryRun(
        [this, &member](const std::string& payload) { showUnsent(member, payload); });
  }
  arm(member);
  member.job =
      command_.job({loop_, *member.device, *member.report, settings_,
                    [this, &member](Outcome outcome) { done(member, std::move(outcome)); }});
  member.job->start();
  if (settings_.dryRun) {
    showSentLater(member);
    done(member, {});
  }
}

// With several devices, the printer adds the names.
void Fleet::showUnsent(Member& member, const std::string& payload) const {
  const std::string shown = terminalSafe(payload.substr(0, kMostPayloadShown));
  const bool cut = payload.size() > kMostPayloadShown;
  member.report->line((members_.size() == 1 ? terminalSafe(member.target.name()) + " " : "") +
                      "<- " + shown +
                      (cut ? "... (" + countText(payload.size(), "byte") + ")" : ""));
  Json object{{"entry", "frame"}};
  putBytes(object, "payload", payload);
  member.report->entry(object);
}

void Fleet::showSentLater(Member& member) const {
  const std::string text = member.job->sentLater();
  member.report->result()["dry_run"] = true;
  if (!text.empty()) {
    member.report->line("   then, depending on the answers: " + terminalSafe(text));
    Json object{{"entry", "later"}};
    putBytes(object, "text", text);
    member.report->entry(object);
  }
}

void Fleet::arm(Member& member) {
  if (settings_.deadline > 0) {
    const auto limit =
        static_cast<runel::Milliseconds::rep>(std::lround(settings_.deadline * 1000));
    member.deadline = loop_.after(runel::Milliseconds(limit), [this, &member] {
      const Error error{Fault::timedOut, "deadline exceeded", "", ETIMEDOUT};
      done(member, {exitStatusOf(error), error});
    });
  }
}

// The calling job is still on the stack: destroy it in the next turn.
void Fleet::done(Member& member, Outcome outcome) {
  if (member.outcome) {
    return;
  }
  member.outcome = std::move(outcome);
  loop_.next([this, &member] { settle(member); });
}

void Fleet::drop(Member& member) {
  loop_.cancel(member.deadline);
  loop_.cancel(member.pause);
  if (member.device != nullptr && member.device->pending() > 0) {
    member.device->abandon();  // its handlers refer to the job
  }
  member.job.reset();
  member.own.reset();
  member.device = nullptr;
}

bool Fleet::again(Member& member) {
  const auto& error = member.outcome->error;
  if (!error || !error->transient || member.attempts > settings_.retry || cancelled_ != 0) {
    return false;
  }
  member.pause = loop_.after(kRetryPause * member.attempts, [this, &member] { start(member); });
  return true;
}

void Fleet::settle(Member& member) {
  const bool bad = member.outcome->status != 0 && member.job;
  const std::optional<runel::Request> rest = bad ? member.job->cleanUp() : std::nullopt;
  drop(member);
  if (again(member)) {
    return;
  }
  if (rest) {
    cleanUp(member, *rest);
  } else {
    conclude(member);
  }
}

// Uses a separate connection: the requests that are queued on the old one must not delay the
// cleanup.
void Fleet::cleanUp(Member& member, const runel::Request& request) {
  const auto limits = runel::DeviceOptions()
                          .setConnectTimeout(kCleanUpTime)
                          .setTimeout(kCleanUpTime)
                          .setMasterSocket(settings_.masterSocket);
  runel::Request quick = request;
  quick.setExtraTimeout(runel::Milliseconds(0));
  member.cleaner = std::make_unique<runel::AsyncDevice>(loop_, member.target, limits);
  member.looks = 0;
  removeLeftover(member, quick);
}

void Fleet::removeLeftover(Member& member, const runel::Request& request) {
  if (!member.cleaner) {
    return;
  }
  member.cleaner->ask(request, [this, &member, request](const runel::Reply& reply) {
    ++member.looks;
    const bool comesBack = reply.answered() && request.words().front() == "unlink";
    if (comesBack && member.looks < (reply.ok() ? kMostLooks : kLeastLooks)) {
      loop_.after(kLookAgain, [this, &member, request] { removeLeftover(member, request); });
      return;
    }
    loop_.next([this, &member] {
      if (member.cleaner) {
        member.cleaner.reset();
        conclude(member);
      }
    });
  });
}

void Fleet::conclude(Member& member) {
  --running_;
  member.succeeded = member.outcome->status == 0;
  failed_ += member.succeeded ? 0 : 1;
  ends_.push_back({member.target.name(), *member.outcome});
  printer_.finished(ends_.back(), *member.report);
  member.report.reset();
  if (running_ == 0 && next_ == waveEnd_) {
    endWave();
  }
  startSome();
  showProgress(running_ == 0);
}

// Starts the next wave unless too many devices have failed.
void Fleet::endWave() {
  if (wave_ + 1 >= waves_.size()) {
    return;
  }
  if (failed_ > static_cast<std::size_t>(settings_.maxFail)) {
    printer_.note("stopped after wave " + std::to_string(wave_ + 1) + ": " +
                  countText(failed_, "device") + " failed");
    return;
  }
  ++wave_;
  waveEnd_ += waves_[wave_];
}

void Fleet::cancel(int status) {
  cancelled_ = status;
  const Error error{Fault::cancelled, "interrupted", "", 0};
  for (const auto& member : members_) {
    if (member->cleaner) {
      // The second signal: do not wait for the cleanup.
      member->cleaner.reset();
      loop_.next([this, held = member.get()] { conclude(*held); });
    } else if (member->device != nullptr) {
      done(*member, {status, error});
    } else if (member->pause.id != 0 && member->outcome) {
      loop_.cancel(member->pause);
      loop_.next([this, held = member.get()] { settle(*held); });
    }
  }
}

void Fleet::showProgress(bool now) {
  if (members_.size() == 1) {
    return;
  }
  const std::size_t waiting = members_.size() - ends_.size() - running_;
  printer_.statusLine().show(std::to_string(ends_.size() - failed_) + " done, " +
                                 std::to_string(failed_) + " failed, " + std::to_string(running_) +
                                 " running, " + std::to_string(waiting) + " waiting",
                             now);
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
