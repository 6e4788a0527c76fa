// SPDX-License-Identifier: Apache-2.0
#include "control/station.h"

#include <algorithm>
#include <utility>

#include <nlohmann/json.hpp>

#include "client/master/access_list.h"

namespace runelctl {

Station::Station(runel::Loop& loop, Label label, runel::Milliseconds timeout, Events events)
    : loop_(loop), label_(std::move(label)), timeout_(timeout), events_(std::move(events)) {}

void Station::useAsSlave(zell::UniqueFd socket) {
  slave_ = std::make_unique<runel::SlaveLink>(
      loop_, std::move(socket), timeout_,
      runel::SlaveLink::Events{[this](const Error& error) {
                                 users_.clear();  // closed together with the device
                                 events_.lost(error.what);
                               },
                               [this] { adjust(); }});
  identify();
}

void Station::useAsBridge(zell::UniqueFd socket, const std::string& hostid) {
  label_.hostid = hostid;
  further_ = std::make_unique<runel::BridgeReader>(
      loop_, std::move(socket),
      runel::BridgeReader::Events{[this] { events_.spoke(); },
                                  [this](const std::string& clause) { events_.clause(clause); },
                                  [this](const std::string& why) { events_.lost(why); }});
}

void Station::promote() {
  zell::UniqueFd socket = further_->take();
  further_.reset();
  label_.hostid.clear();
  useAsSlave(std::move(socket));
}

// The reported names are printed and compared, so they must be valid.
void Station::identify() {
  slave_->ask(runel::Request({"hostid"}), [this](const runel::Reply& reply) {
    label_.hostid = reply.ok() && runel::usableName(reply.output()) ? reply.output() : "";
  });
  slave_->ask(runel::Request({"devicetype"}), [this](const runel::Reply& reply) {
    deviceType_ = reply.ok() && runel::usableName(reply.output()) ? reply.output() : "";
    identified_ = true;
    events_.identified();
  });
}

void Station::attach(zell::UniqueFd socket) {
  users_.push_back(nullptr);
  std::unique_ptr<Attachment>& place = users_.back();
  place = std::make_unique<Attachment>(
      loop_, std::move(socket), *slave_,
      Attachment::Events{[this, &place] { userGone(place.get()); }, [this] { adjust(); }});
}

// A user that leaves before its answers may have timed out on a dead device: check the device.
void Station::userGone(Attachment* user) {
  const auto place = std::find_if(users_.begin(), users_.end(),
                                  [&](const auto& held) { return held.get() == user; });
  const std::shared_ptr<Attachment> gone = std::move(*place);
  users_.erase(place);
  loop_.next([gone] { (void)gone; });  // the attachment is still on the stack
  if (slave_->waiting() > 0) {
    slave_->check();
  }
  adjust();
}

// Flow control: pauses reading from users while the device is busy, and from the device while a
// user is slow.
void Station::adjust() {
  const bool busy = slave_->busy();
  bool slow = false;
  for (const auto& user : users_) {
    user->setReading(!busy);
    slow = slow || user->slow();
  }
  slave_->setReading(!slow);
}

std::string Station::role() const {
  if (slave_) {
    return "slave";
  }
  return further_ && further_->hasSpoken() ? "agent" : "further";
}

void Station::check() {
  if (slave_) {
    slave_->check();
  }
}

void Station::refuse() {
  refused_ = true;
  users_.clear();
}

runel::SlaveLink::Counters Station::counters() const {
  return slave_ ? slave_->counters() : runel::SlaveLink::Counters();
}

Json Station::describe(const runel::DeviceHistory::Entry& known) const {
  const runel::SlaveLink::Counters now = counters();
  const auto age = std::chrono::duration<double>(runel::Clock::now() - start_);
  Json object{{"v", 1},
              {"device", name()},
              {"task", "devices"},
              {"hostid", label_.hostid},
              {"devicetype", deviceType_},
              {"address", label_.address},
              {"port", label_.port},
              {"since", utcText(since_)},
              {"connected_s", static_cast<std::int64_t>(age.count())},
              {"first_seen", utcText(known.firstSeen)},
              {"connects", known.connects},
              {"losses", known.losses},
              {"users", users_.size()},
              {"requests", known.earlier.requests + now.requests},
              {"bytes_to_device", known.earlier.bytesOut + now.bytesOut},
              {"bytes_from_device", known.earlier.bytesIn + now.bytesIn}};
  if (known.losses > 0) {
    object["last_loss"] = utcText(known.lastLoss);
    object["last_loss_why"] = known.lastReason;
  }
  return object;
}

}  // namespace runelctl
