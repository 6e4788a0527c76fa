// SPDX-License-Identifier: Apache-2.0
// The blocking fleet: turns a loop until the event-driven one is done.
#include <runel/fleet.h>

#include <utility>

#include "client/fleet/fleet_jobs.h"
#include "client/fleet/fleet_work.h"

namespace runel {
inline namespace v1 {

struct Fleet::Data {
  std::vector<FleetEntry> devices;
  FleetOptions options;
};

Fleet::Fleet(const std::vector<std::string>& devices, const FleetOptions& options)
    : data_(std::make_unique<Data>(Data{{}, options})) {
  for (const std::string& text : devices) {
    Result<Address> address = Address::parse(text);
    data_->devices.push_back({address ? address->name() : text, std::move(address)});
  }
}

Fleet::~Fleet() = default;
Fleet::Fleet(Fleet&& other) noexcept = default;
Fleet& Fleet::operator=(Fleet&& other) noexcept = default;

FleetReport Fleet::run(const Request& request) {
  return run(requestJob(request));
}

FleetReport Fleet::run(const AsyncFleet::Job& job) {
  Loop loop;
  loop.setResolver([](const std::string& host, const Loop::Resolved& resolved) {
    resolved(resolveBlocking(host));
  });
  FleetWork work(loop, data_->devices, data_->options);
  std::optional<FleetReport> report;
  AsyncFleet::Handlers handlers;
  handlers.done = [&](FleetReport done) {
    report = std::move(done);
    loop.stop();
  };
  work.run(functionJob(job), std::move(handlers));
  loop.run();
  return std::move(*report);
}

}  // namespace v1
}  // namespace runel
