// SPDX-License-Identifier: Apache-2.0
#include <utility>

#include <runel/fleet.h>

#include "client/fleet/fleet_jobs.h"
#include "client/fleet/fleet_work.h"

namespace runel {
inline namespace v1 {
namespace {

// A job that is one function.
class FunctionJob : public FleetJob {
 public:
  FunctionJob(FleetAttempt attempt, std::shared_ptr<const AsyncFleet::Job> job)
      : attempt_(std::move(attempt)), job_(std::move(job)) {}

  void start() override {
    const std::shared_ptr<const AsyncFleet::Job> job = job_;  // it may destroy this object
    (*job)(attempt_.device, attempt_.finish);
  }

 private:
  FleetAttempt attempt_;
  std::shared_ptr<const AsyncFleet::Job> job_;
};

// "exec /bin/true", for the text of a failure.
std::string about(const Request& request) {
  const std::vector<std::string>& words = request.words();
  return words.empty() ? "" : words[0] + (words.size() > 1 ? " " + words[1] : "");
}

Result<Reply> checked(const Request& request, const Reply& reply) {
  if (reply.ok() || (reply.answered() && reply.status() == Status::running)) {
    return reply;
  }
  return reply.error(about(request));
}

std::vector<FleetEntry> entriesOf(std::vector<Address> devices) {
  std::vector<FleetEntry> entries;
  entries.reserve(devices.size());
  for (Address& device : devices) {
    entries.push_back({device.name(), std::move(device)});
  }
  return entries;
}

}  // namespace

FleetJob::FleetJob() = default;
FleetJob::~FleetJob() = default;

std::optional<Request> FleetJob::cleanUp() const {
  return std::nullopt;
}

bool FleetJob::mayRepeat(const Error& error, bool safe) const {
  const bool link = error.kind() == Kind::link || error.kind() == Kind::timeout;
  return link && error.transient() && safe;
}

AsyncFleet::Job requestJob(const Request& request) {
  return [request](AsyncDevice& device, const AsyncFleet::Finish& finish) {
    device.ask(request, [request, finish](const Reply& reply) { finish(checked(request, reply)); });
  };
}

AsyncFleet::MakeJob functionJob(AsyncFleet::Job job) {
  return [held = std::make_shared<const AsyncFleet::Job>(std::move(job))](FleetAttempt attempt) {
    return std::make_unique<FunctionJob>(std::move(attempt), held);
  };
}

struct AsyncFleet::Data {
  Data(Loop& loop, std::vector<FleetEntry> entries, const FleetOptions& options)
      : work(loop, std::move(entries), options) {}

  FleetWork work;
};

AsyncFleet::AsyncFleet(Loop& loop, std::vector<Address> devices, const FleetOptions& options)
    : data_(std::make_unique<Data>(loop, entriesOf(std::move(devices)), options)) {}

AsyncFleet::~AsyncFleet() = default;

void AsyncFleet::lend(AsyncDevice& device) {
  data_->work.lend(device);
}

void AsyncFleet::run(Job job, Handlers handlers) {
  run(functionJob(std::move(job)), std::move(handlers));
}

void AsyncFleet::run(MakeJob make, Handlers handlers) {
  data_->work.run(std::move(make), std::move(handlers));
}

void AsyncFleet::run(const Request& request, Handlers handlers) {
  run(requestJob(request), std::move(handlers));
}

void AsyncFleet::startNoFurther() {
  data_->work.startNoFurther();
}

void AsyncFleet::cancel() {
  data_->work.cancel();
}

}  // namespace v1
}  // namespace runel
