// SPDX-License-Identifier: Apache-2.0
#include <runel/master.h>

#include <cerrno>
#include <deque>
#include <string>
#include <utility>

#include "client/master/master_engine.h"
#include "client/master/run_until.h"

namespace runel {
inline namespace v1 {
namespace {

constexpr std::size_t kMostEvents = 4096;

}  // namespace

struct Master::Data {
  explicit Data(const MasterOptions& options)
      : engine(loop, options, [this](const MasterEvent& event) { keep(event); }) {}

  void keep(const MasterEvent& event) {
    events.push_back(event);
    if (events.size() > kMostEvents) {
      events.pop_front();
    }
  }

  Loop loop;
  std::deque<MasterEvent> events;
  MasterEngine engine;
};

Master::Master(const MasterOptions& options) : data_(std::make_unique<Data>(options)) {}
Master::~Master() = default;
Master::Master(Master&& other) noexcept = default;
Master& Master::operator=(Master&& other) noexcept = default;

Result<void> Master::open() {
  return data_->engine.open();
}

std::uint16_t Master::port() const {
  return data_->engine.port();
}

Result<std::vector<DeviceInfo>> Master::waitForDevices(std::size_t count, Milliseconds limit) {
  const auto complete = [&] { return data_->engine.deviceCount() >= count; };
  if (runUntil(data_->loop, complete, limit)) {
    return devices();
  }
  return Error(Kind::timeout, Cause::deadline,
               std::to_string(data_->engine.deviceCount()) + " of " + std::to_string(count) +
                   " devices are connected");
}

std::vector<DeviceInfo> Master::devices() const {
  return data_->engine.devices();
}

// The engine ends each request: by the reply, a loss or the timeout.
Result<Reply> Master::ask(const std::string& name, const Request& request) {
  std::optional<Reply> reply;
  data_->engine.ask(name, request, [&](const Reply& got) { reply = got; });
  (void)runUntil(
      data_->loop, [&] { return reply.has_value(); }, std::nullopt);
  if (!reply->answered()) {
    return reply->error();
  }
  return *reply;
}

// By ADDRESS:PORT, which is always unique.
std::vector<std::pair<std::string, Reply>> Master::askAll(const Request& request) {
  std::vector<std::pair<std::string, Reply>> replies;
  const std::vector<DeviceInfo> all = devices();
  std::size_t missing = all.size();
  for (std::size_t i = 0; i < all.size(); ++i) {
    replies.emplace_back(all[i].name(), Reply());
    data_->engine.ask(all[i].host() + ":" + std::to_string(all[i].port()), request,
                      [&, i](const Reply& got) {
                        replies[i].second = got;
                        --missing;
                      });
  }
  (void)runUntil(
      data_->loop, [&] { return missing == 0; }, std::nullopt);
  return replies;
}

Result<void> Master::sendClause(const std::string& name, const std::string& clause) {
  Result<void> queued = data_->engine.sendClause(name, clause);
  if (!queued) {
    return queued;
  }
  std::optional<std::size_t> left;
  const auto over = [&] {
    left = data_->engine.queuedClauses(name);
    return !left || *left == 0;
  };
  if (!runUntil(data_->loop, over, data_->engine.timeout())) {
    return Error(Kind::timeout, Cause::silence, "the agent does not read its clauses", ETIMEDOUT)
        .with(Outcome::unknown);
  }
  if (!left) {
    return Error(Kind::link, Cause::closed, "the connection to the agent was closed")
        .with(Outcome::unknown);
  }
  return {};
}

std::optional<MasterEvent> Master::nextEvent(Milliseconds limit) {
  (void)runUntil(
      data_->loop, [&] { return !data_->events.empty(); }, limit);
  if (data_->events.empty()) {
    return std::nullopt;
  }
  MasterEvent event = std::move(data_->events.front());
  data_->events.pop_front();
  return event;
}

}  // namespace v1
}  // namespace runel
