// SPDX-License-Identifier: Apache-2.0
#include "client/jobs/job_follower.h"

#include <algorithm>
#include <cerrno>
#include <utility>

#include <runel/records.h>

namespace runel {
namespace {

constexpr Milliseconds kShortPoll{50};
constexpr Milliseconds kLongPoll{1000};
constexpr Milliseconds kBusyPoll{10000};
constexpr Milliseconds kLookPause{100};
constexpr int kMostLooks = 50;

const char* const kStreams[] = {"out", "err"};

}  // namespace

JobFollower::JobFollower(AsyncDevice& device, JobPlace place, const JobFollow& follow,
                         Handlers handlers)
    : place_(std::move(place)),
      follow_(follow),
      handlers_(std::move(handlers)),
      link_(device, follow.limit,
            {[this] { look(); }, [this](const Error& error) { fail(error); },
             [this](const Error& error) {
               if (handlers_.lost) {
                 handlers_.lost(error);
               }
             }}) {
  if (follow_.started) {
    link_.keepTrying();
  }
}

void JobFollower::look() {
  link_.ask(showJob(place_), [this](const Reply& reply) { looked(reply); });
}

void JobFollower::looked(const Reply& reply) {
  const Result<std::vector<JobRecord>> jobs = jobsIn(reply, place_);
  if (!jobs || jobs->empty()) {
    fail(jobs ? Error(Kind::device, Cause::other, "no such job: " + place_.id, ENOENT)
              : jobs.error());
    return;
  }
  const JobRecord& job = jobs->front();
  if (!job.started && !job.status) {
    // The program that starts it may be about to write the file, if the daemon ended meanwhile.
    if (follow_.started && ++looks_ < kMostLooks) {
      link_.after(kLookPause, [this] { look(); });
      return;
    }
    fail({Kind::device, Cause::other, "job " + place_.id + " was never started", ESRCH});
    return;
  }
  if (!job.started || (started_ && !(*started_ == *job.started))) {
    fail({Kind::device, Cause::changed,
          "job " + place_.id +
              " was removed, and its ID was used for another job: the end of its " +
              "output and its exit status are lost"});
    return;
  }
  link_.keepTrying();
  alive_ = job.phase() != JobPhase::interrupted;
  pause_ = kShortPoll;
  if (!started_ && follow_.output) {
    for (const char* stream : kStreams) {
      readers_.push_back(std::make_unique<SegmentReader>(place_, stream, *job.started));
    }
  }
  started_ = job.started;
  if (sendSignal_) {
    std::exchange(sendSignal_, nullptr)();
  }
  findSegments();
}

// Also where no segment is missing: another reader may have removed the first ones.
void JobFollower::findSegments() {
  if (readers_.empty()) {
    poll();
    return;
  }
  link_.ask(Request({"readdir", place_.directory + "/" + place_.id}), [this](const Reply& reply) {
    const auto names = reply.ok() ? parseNames(reply.output()) : std::nullopt;
    for (const auto& reader : readers_) {
      reader->found(names.value_or(std::vector<std::string>()));
    }
    poll();
  });
}

// All requests are sent together, and executed in their order. The wrapper ends after it has stored
// the status, and the output is complete before that: so the answers are read in the other order.
void JobFollower::poll() {
  began_ = Clock::now();
  moved_ = false;
  const bool last = readers_.empty();
  if (alive_) {
    link_.ask(Request({"read", "/proc/" + std::to_string(started_->pid) + "/stat"}),
              [this](const Reply& reply) {
                alive_ = reply.ok() && parseProcessStart(reply.output()) == started_->begin;
              });
  }
  link_.ask(Request({"read", place_.path("status")}), [this, last](const Reply& reply) {
    status_ = reply.ok() ? parseJobStatus(reply.output()) : std::nullopt;
    if (reply.ok() && !status_) {
      fail({Kind::link, Cause::protocol, "malformed status of a job"});
    } else if (last) {
      settle();
    }
  });
  for (std::size_t i = 0; i < readers_.size(); ++i) {
    link_.ask(readers_[i]->sizeRequest(), [this, i](const Reply& reply) {
      readers_[i]->sized(reply);
      if (i + 1 == readers_.size()) {
        polled();
      }
    });
  }
}

void JobFollower::polled() {
  const bool missing = std::any_of(readers_.begin(), readers_.end(),
                                   [](const auto& reader) { return reader->missing(); });
  if (!missing) {
    read(0);
    return;
  }
  link_.ask(Request({"readdir", place_.directory + "/" + place_.id}), [this](const Reply& reply) {
    const auto names = reply.ok() ? parseNames(reply.output()) : std::nullopt;
    for (const auto& reader : readers_) {
      const std::uint64_t before = reader->gone();
      if (reader->missing()) {
        reader->found(names.value_or(std::vector<std::string>()));
      }
      moved_ = moved_ || reader->gone() != before;
    }
    read(0);
  });
}

// Fetches from the reader @p reader and those behind it, one answer after the other.
void JobFollower::read(std::size_t reader) {
  while (reader < readers_.size() && !readers_[reader]->hasMore()) {
    ++reader;
  }
  if (reader == readers_.size()) {
    settle();
    return;
  }
  link_.ask(readers_[reader]->nextRequest(), [this, reader](const Reply& reply) {
    const Result<std::string> bytes = readers_[reader]->take(reply);
    if (!bytes) {
      fail(bytes.error());
      return;
    }
    moved_ = moved_ || !bytes->empty() || !reply.ok();  // after a failure, look again
    fetched_[reader] += bytes->size();
    if (!bytes->empty()) {
      handlers_.output(reader, *bytes);
    }
    if (follow_.makeRoom) {
      for (const Request& request : readers_[reader]->makeRoom(started_->limit)) {
        link_.ask(request, [](const Reply&) {});  // a segment that stays only takes room
      }
    }
    read(reader + 1);
  });
}

void JobFollower::settle() {
  const bool ended = status_ || !alive_;
  const bool full = std::any_of(readers_.begin(), readers_.end(),
                                [](const auto& reader) { return reader->completed(); });
  if (moved_ && (full || ended)) {
    again(true);
  } else if (ended) {
    finish(status_ ? JobPhase::ended : JobPhase::interrupted);
  } else if (!follow_.wait) {
    finish(JobPhase::running);
  } else {
    again(false);
  }
}

void JobFollower::again(bool atOnce) {
  pause_ = moved_ ? kShortPoll : std::min(pause_ * 3 / 2, kLongPoll);
  if (atOnce) {
    poll();
    return;
  }
  const auto took = std::chrono::duration_cast<Milliseconds>(Clock::now() - began_);
  link_.after(std::max(pause_, std::min(took * 2, kBusyPoll)), [this] { poll(); });
}

void JobFollower::signal(const std::string& name, std::function<void(JobAnswer answer)> answered) {
  sendSignal_ = [this, name, answered = std::move(answered)] {
    link_.ask(signalJob(place_, name),
              [answered](const Reply& reply) { answered(jobAnswerOf(reply)); });
  };
  if (link_.connected()) {
    std::exchange(sendSignal_, nullptr)();
  }
}

// Last, because the handlers may destroy this object.
void JobFollower::finish(JobPhase phase) {
  link_.stop();
  end_.phase = phase;
  end_.status = status_.value_or(JobStatus());
  for (std::size_t i = 0; i < readers_.size(); ++i) {
    end_.gone[i] = readers_[i]->gone();
  }
  const auto done = handlers_.done;
  const JobEnd end = end_;
  done(end);
}

void JobFollower::fail(const Error& error) {
  link_.stop();
  const auto failed = handlers_.failed;
  failed(error);
}

}  // namespace runel
