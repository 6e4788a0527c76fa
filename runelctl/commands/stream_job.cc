// SPDX-License-Identifier: Apache-2.0
#include "commands/stream_job.h"

#include <algorithm>
#include <csignal>
#include <utility>

#include "output/text.h"

namespace runelctl {
namespace {

const char* const kStreamNames[] = {"stdout", "stderr"};
const char* const kStreamTexts[] = {"standard output", "standard error"};

const char* signalName(int number) {
  return number == SIGINT ? "INT" : number == SIGHUP ? "HUP" : "TERM";
}

}  // namespace

StreamJob::StreamJob(JobContext context, StreamPlan plan)
    : Job(std::move(context)), plan_(std::move(plan)), sentBefore_(device().sent()) {
  putBytes(report().result(), "job", plan_.place.id);
}

void StreamJob::start() {
  if (!plan_.start) {
    follow();
    return;
  }
  starter_ = std::make_unique<runel::JobStarter>(
      device(), plan_.place, *plan_.start, plan_.input, plan_.follow.limit,
      runel::JobStarter::Handlers{
          [this](runel::JobAnswer answer, const std::optional<runel::Error>& error) {
            if (error) {
              (void)answer;
              failed(*error);
            } else {
              plan_.follow.started = true;
              follow();
            }
          },
          [this](const runel::Error& error) { lost(error); }});
  starter_->start();
}

void StreamJob::follow() {
  follower_ = std::make_unique<runel::JobFollower>(
      device(), plan_.place, plan_.follow,
      runel::JobFollower::Handlers{
          [this](std::size_t stream, std::string_view bytes) { show(stream, bytes); },
          [this](const runel::JobEnd& end) { ended(end); },
          [this](const runel::Error& error) { failed(error); },
          [this](const runel::Error& error) { lost(error); }});
  follower_->start();
}

void StreamJob::show(std::size_t stream, std::string_view bytes) {
  if (std::exchange(disconnected_, false)) {
    report().note("connected again");
  }
  if (report().json()) {
    showEntry(stream, bytes);
  } else if (stream == 0) {
    report().bytes(bytes);
  } else {
    report().errorBytes(bytes);
  }
}

// A character that ends in the next piece is not cut, which would make both pieces invalid UTF-8.
void StreamJob::showEntry(std::size_t stream, std::string_view bytes) {
  std::string whole = std::exchange(held_[stream], {});
  whole.append(bytes);
  held_[stream] = whole.substr(whole.size() - unfinishedCharacter(whole));
  whole.resize(whole.size() - held_[stream].size());
  addEntry(stream, whole);
}

void StreamJob::addEntry(std::size_t stream, std::string_view bytes) {
  if (!bytes.empty()) {
    report().entry([&] {
      Json object{{"entry", "output"}, {"stream", kStreamNames[stream]}};
      putBytes(object, "content", bytes);
      return object;
    });
  }
}

bool StreamJob::interrupt(int number) {
  if (!follower_ || over_ || !plan_.follow.output || !plan_.follow.wait) {
    return false;
  }
  ++interruptions_;
  if (interruptions_ > 2) {
    Error left(Fault::cancelled, "interrupted; the program continues", comeBack());
    left.transient = false;
    end({kExitSignalBase + number, left});
    return true;
  }
  const std::string name = interruptions_ == 1 ? signalName(number) : "TERM";
  const bool first = interruptions_ == 1;
  follower_->signal(name, [this, name, first](runel::JobAnswer answer) {
    if (answer == runel::JobAnswer::done) {
      report().note("SIG" + name + " sent to the program; interrupt again to " +
                    (first ? "send SIGTERM" : "leave it running"));
    } else if (answer == runel::JobAnswer::failed) {
      report().note("SIG" + name + " was not sent: the device failed to do it");
    }
  });
  return true;
}

// A program that another caller has started continues.
bool StreamJob::endProgram() {
  if (follower_ && plan_.start && !over_) {
    follower_->signal("END", [](runel::JobAnswer) {});
  }
  return over_ || (follower_ && plan_.start);
}

// Asked for after an attempt that was ended from outside, such as by its deadline.
std::optional<runel::Request> StreamJob::cleanUp() const {
  return plan_.start && !over_ && device().sent() != sentBefore_
             ? std::make_optional(runel::signalJob(plan_.place, "END"))
             : std::nullopt;
}

std::string StreamJob::remainder() const {
  const bool unsent = plan_.start && device().sent() == sentBefore_;
  if (over_ || unsent || (!plan_.start && !plan_.follow.wait)) {
    return "";
  }
  return (plan_.start ? "the program is being stopped: " : "the job continues: ") + comeBack();
}

std::string StreamJob::sentLater() const {
  return std::string(plan_.input ? "append of standard input to a file; " : "") +
         "read of the status and stat of the output, repeatedly; read or tail for what is new" +
         (plan_.remove ? "; removal of the job" : "");
}

void StreamJob::ended(const runel::JobEnd& end) {
  for (std::size_t stream = 0; stream < 2; ++stream) {
    addEntry(stream, std::exchange(held_[stream], {}));
  }
  if (plan_.follow.output) {
    tellMissing(end);
  }
  if (!plan_.remove || end.phase != runel::JobPhase::ended) {
    conclude(end);
    return;
  }
  // A job that stays is removed by a later start.
  ask(runel::removeJob(plan_.place), [this, end](const runel::Reply&) { conclude(end); });
}

void StreamJob::tellMissing(const runel::JobEnd& end) {
  Json& result = report().result();
  for (std::size_t stream = 0; stream < 2; ++stream) {
    const std::string name = kStreamNames[stream];
    const std::string of = " of " + std::string(kStreamTexts[stream]);
    if (end.status.lost[stream] > 0) {
      report().warn(sizeText(end.status.lost[stream]) + of +
                    " did not fit on the device and are lost: see --job-limit and df");
      result["lost_" + name] = end.status.lost[stream];
      missing_ = true;
    }
    if (end.gone[stream] > 0) {
      report().warn(sizeText(end.gone[stream]) + of +
                    " are no longer on the device: another reader has fetched them");
      result["removed_" + name] = end.gone[stream];
      missing_ = true;
    }
  }
  if (missing_) {
    result["truncated"] = true;
  }
}

void StreamJob::conclude(const runel::JobEnd& end) {
  const int incomplete = missing_ ? kExitTaskFailed : 0;
  const std::string job = "job " + plan_.place.id;
  if (end.phase == runel::JobPhase::running) {
    report().result()["state"] = "running";
    this->end({incomplete, std::nullopt});
  } else if (!plan_.follow.wait) {
    report().result()["state"] = end.phase == runel::JobPhase::ended ? "ended" : "interrupted";
    this->end({incomplete, std::nullopt});
  } else if (end.phase == runel::JobPhase::interrupted) {
    report().result()["state"] = "interrupted";
    this->end({kExitTaskFailed,
               Error(Fault::program, job + ": interrupted before it ended: the device was "
                                           "rebooted, or the job was killed")});
  } else if (end.status.late) {
    report().result()["state"] = "ended";
    this->end({kExitTimeLimit, runel::Error(runel::Kind::program, runel::Cause::programTimeout,
                                            job + ": exceeded its time limit")});
  } else {
    report().result()["state"] = "ended";
    const int code = end.status.code & 255;
    const std::string text = job + ": exit status " + std::to_string(code);
    // Report only the exit status, like a shell.
    this->end({code == 0 ? incomplete : code, code != 0 && report().json()
                                                  ? std::make_optional(Error(Fault::program, text))
                                                  : std::nullopt});
  }
}

void StreamJob::failed(const runel::Error& error) {
  Error shown(error);
  const bool begun = follower_ || disconnected_ || error.outcome() == runel::Outcome::unknown;
  if (begun && error.kind() != runel::Kind::device) {
    shown.advise("the job may continue: " + comeBack());
  } else if (error.number() == EEXIST) {
    shown.hint = comeBack();
  } else if (error.cause() == runel::Cause::changed) {
    shown.hint = "to follow the other job: " + comeBack();
  }
  end({exitStatusOf(shown), shown});
}

void StreamJob::lost(const runel::Error& error) {
  if (!std::exchange(disconnected_, true)) {
    report().note(error.text() + "; trying to connect again");
  }
}

void StreamJob::end(Outcome outcome) {
  over_ = true;
  finish(std::move(outcome));
}

std::string StreamJob::comeBack() const {
  return attachLine(device().address().name(), plan_.place);
}

}  // namespace runelctl
