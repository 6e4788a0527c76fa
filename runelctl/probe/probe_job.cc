// SPDX-License-Identifier: Apache-2.0
#include "probe/probe_job.h"

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <limits>
#include <optional>
#include <utility>

#include <runel/error.h>
#include <runel/records.h>

namespace runelctl {
namespace {

constexpr std::size_t kRoundTrips = 3;
// Larger answers end the probe. The files of /proc have a few hundred bytes.
constexpr std::size_t kMostBytes = 65536;

// Needs only one system call on the device.
runel::Request cheapTask() {
  return runel::Request({"fileexists", "/"});
}

runel::Request readTask(const std::string& path) {
  runel::Request request({"read", path});
  request.setReplyLimit(kMostBytes);
  return request;
}

// Does not overflow for a device that tells nonsense.
std::optional<std::uint64_t> spaceOf(std::uint64_t blocks, std::uint64_t blockSize) {
  const bool fits =
      blockSize != 0 && blocks <= std::numeric_limits<std::uint64_t>::max() / blockSize;
  return fits ? std::make_optional(blocks * blockSize) : std::nullopt;
}

}  // namespace

ProbeJob::ProbeJob(runel::FleetAttempt attempt, const ProbePlan& plan, Facts& facts,
                   bool& connected)
    : attempt_(std::move(attempt)),
      plan_(plan),
      facts_(facts),
      connected_(connected),
      blockSizes_(plan.paths.size()) {}

ProbeJob::~ProbeJob() {
  connected_ = attempt_.device.sent() > 0;
}

void ProbeJob::ask(const runel::Request& request, runel::ReplyHandler handler) {
  attempt_.device.ask(request, [this, handler = std::move(handler)](const runel::Reply& reply) {
    if (reply.answered()) {
      handler(reply);
    } else {
      attempt_.finish(reply.error());
    }
  });
}

// The first answer includes the connection setup.
void ProbeJob::start() {
  ask(cheapTask(), [this](const runel::Reply&) { measure(); });
}

void ProbeJob::measure() {
  sent_ = runel::Clock::now();
  ask(cheapTask(), [this](const runel::Reply&) {
    times_.push_back(std::chrono::duration<double>(runel::Clock::now() - sent_).count());
    if (times_.size() < kRoundTrips) {
      measure();
      return;
    }
    facts_.roundTrip = medianOf(times_);
    askFacts();
  });
}

// The daemon itself reads the files, so /proc/self is the daemon.
void ProbeJob::askFacts() {
  ask(readTask("/proc/self/stat"), [this](const runel::Reply& reply) {
    started_ = reply.ok() ? parseProcessStart(reply.output()) : std::nullopt;
  });
  ask(readTask("/proc/uptime"), [this](const runel::Reply& reply) {
    facts_.uptime = reply.ok() ? parseUptime(reply.output()) : std::nullopt;
    facts_.restartAge = ageOf(started_, facts_.uptime);
  });
  for (std::size_t index = 0; index < plan_.paths.size(); ++index) {
    askFree(index);
  }
  // A file that is not regular could block the daemon when it is read.
  ask(runel::Request({"stat", plan_.versionFile}), [this](const runel::Reply& reply) {
    const std::optional<runel::Stat> about =
        reply.ok() ? runel::parseStat(reply.output()) : std::nullopt;
    if (about && about->isRegular() && about->size <= kMostVersionBytes + 1) {
      askVersion();
    } else {
      finish();
    }
  });
}

void ProbeJob::askFree(std::size_t index) {
  const std::string& path = plan_.paths[index];
  ask(runel::Request({"stat", path}), [this, index](const runel::Reply& reply) {
    const std::optional<runel::Stat> about =
        reply.ok() ? runel::parseStat(reply.output()) : std::nullopt;
    blockSizes_[index] = about ? about->blksize : 0;
  });
  ask(runel::Request({"freeblocks", path}), [this, index, &path](const runel::Reply& reply) {
    FreeSpace free{path, std::nullopt};
    if (reply.ok()) {
      const std::optional<std::uint64_t> blocks = runel::parseNumber(reply.output());
      free.bytes = blocks ? spaceOf(*blocks, blockSizes_[index]) : std::nullopt;
      free.why = "malformed answer";
    } else {
      free.why = reply.error().text();
    }
    facts_.free.push_back(std::move(free));
  });
}

void ProbeJob::askVersion() {
  ask(readTask(plan_.versionFile), [this](const runel::Reply& reply) {
    facts_.version = reply.ok() ? parseVersion(reply.output()) : std::nullopt;
    finish();
  });
}

void ProbeJob::finish() {
  attempt_.finish(runel::Reply());
}

}  // namespace runelctl
