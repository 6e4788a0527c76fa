// SPDX-License-Identifier: Apache-2.0
#include "gateway/link/device_link.h"

#include <chrono>
#include <ctime>
#include <unordered_map>

#include <arpa/inet.h>
#include <netinet/in.h>

#include <runel/async_master.h>

#include "client/master/call_queue.h"
#include "gateway/link/device_queue.h"
#include "gateway/link/request_head.h"
#include "protocol/protocol.h"

namespace runelgw {
namespace {

using runel::MasterEvent;

constexpr std::uint64_t kLargestRequest = zell::kMaxFramePayload;

// An address and a port in one number: a gateway keeps one for each device.
using PlaceKey = std::uint64_t;

PlaceKey keyOf(const std::string& host, std::uint16_t port) {
  in_addr address{};
  (void)inet_pton(AF_INET, host.c_str(), &address);  // the text is that of a connection
  return PlaceKey{ntohl(address.s_addr)} << 16 | port;
}

std::string textOf(PlaceKey key) {
  const in_addr address{htonl(static_cast<std::uint32_t>(key >> 16))};
  char text[INET_ADDRSTRLEN] = "";
  (void)inet_ntop(AF_INET, &address, text, sizeof text);  // the buffer fits every address
  return std::string(text) + ":" + std::to_string(key & 0xffff);
}

std::string join(const std::vector<std::string>& parts) {
  std::string list;
  for (const std::string& part : parts) {
    list += (list.empty() ? "" : ",") + part;
  }
  return list;
}

std::string timeText(std::int64_t milliseconds) {
  const std::time_t seconds = static_cast<std::time_t>(milliseconds / 1000);
  std::tm parts{};
  char text[32] = "";
  if (gmtime_r(&seconds, &parts) != nullptr) {
    (void)std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &parts);  // it fits
  }
  return text;
}

std::string busyText(const QueueState& state) {
  const std::string queued = std::to_string(state.waiting) + " requests wait";
  return state.busyWith.empty()
             ? "busy: " + queued + " for the device to return"
             : "busy with " + state.busyWith + " since " + timeText(state.since) + ", " + queued;
}

const char* sentenceOf(Reason reason) {
  switch (reason) {
    case Reason::quarantined:
      return "another connection claims the identity of the device";
    case Reason::waiting:
      return "the device is not approved yet";
    case Reason::denied:
      return "the device is on the deny list";
    default:
      return "the device is not used";
  }
}

}  // namespace

struct DeviceLink::Data {
  Data(runel::Loop& itsLoop, LinkSettings itsSettings, std::shared_ptr<PayloadSpool> itsSpool,
       LinkObserver& itsObserver)
      : loop(itsLoop),
        settings(std::move(itsSettings)),
        spool(std::move(itsSpool)),
        observer(itsObserver),
        calls(loop) {}

  /// One connection that has told its identity.
  struct Connected {
    DeviceId device = 0;
    Reason silenced = Reason::none;
  };

  [[nodiscard]] runel::Result<runel::MasterOptions> options();
  [[nodiscard]] runel::Result<void> open();
  void handle(const MasterEvent& event);
  void lose(const Place& place, const std::string& why);
  [[nodiscard]] DeviceId deviceOf(const MasterEvent& event) const;
  void unbind(Connected& connected, PlaceKey key, DeviceId other);
  DeviceQueue& queueOf(DeviceId device);
  void connect(DeviceId device, DeviceQueue& queue);
  void refuse(const RequestHead& head, Router::Done done, Answer answer);
  [[nodiscard]] std::optional<Answer> refusal(const Call& call, const RequestHead& head) const;
  void done(CallId id, const RequestHead& head, Router::Done callback, Answer answer);
  [[nodiscard]] DeviceQueue* find(DeviceId device) const;

  runel::Loop& loop;
  const LinkSettings settings;
  const std::shared_ptr<PayloadSpool> spool;
  LinkObserver& observer;
  runel::CallQueue calls;
  std::unordered_map<PlaceKey, Connected> places;
  std::unordered_map<DeviceId, PlaceKey> devices;  // those that are bound
  std::unordered_map<CallId, DeviceId> pending;
  CallId lastCall = 0;
  std::size_t silencedPlaces = 0;
  bool stopped = false;
  LinkCounters counters;
  // After what their events use.
  std::unordered_map<DeviceId, std::unique_ptr<DeviceQueue>> queues;
  std::unique_ptr<runel::AsyncMaster> master;
};

runel::Result<runel::MasterOptions> DeviceLink::Data::options() {
  runel::MasterOptions made;
  made.setTimeout(settings.ioTimeout);
  made.setIdentifyRate(settings.identifyPerSecond);
  made.setHeld(settings.mostSilent).setHistory(0);
  made.setPolicy([this](const std::string& host, std::uint16_t port, const std::string& name) {
    return observer.silenceFor({host, port, name});
  });
  for (std::size_t i = 0; i < settings.listen.size(); ++i) {
    const LinkSettings::Listen& listen = settings.listen[i];
    (void)(i == 0 ? made.setListen(listen.host, listen.port)
                  : made.addListen(listen.host, listen.port));  // it returns the options
  }
  const auto set =
      [&made](const std::vector<std::string>& networks,
              runel::Result<void> (runel::MasterOptions::*setter)(const std::string& list)) {
        return networks.empty() ? runel::Result<void>() : (made.*setter)(join(networks));
      };
  if (!settings.sharedAddresses.empty()) {
    made.setShared(settings.sharedSilence);
  }
  for (const auto& done :
       {set(settings.allowedAddresses, &runel::MasterOptions::allowAddresses),
        set(settings.proxies, &runel::MasterOptions::trustProxies),
        set(settings.sharedAddresses, &runel::MasterOptions::setSharedAddresses)}) {
    if (!done) {
      return done.error();
    }
  }
  return made;
}

runel::Result<void> DeviceLink::Data::open() {
  const auto made = options();
  if (!made) {
    return made.error();
  }
  master = std::make_unique<runel::AsyncMaster>(
      loop, *made, [this](const MasterEvent& event) { handle(event); });
  return master->open();
}

void DeviceLink::Data::handle(const MasterEvent& event) {
  const Place place{event.host(), event.port(), event.certificate()};
  switch (event.type()) {
    case MasterEvent::Type::connected:
      places.try_emplace(keyOf(place.host, place.port));
      observer.connected(place, event.rawHostid(), event.deviceType());
      break;
    case MasterEvent::Type::lost:
      lose(place, event.text());
      break;
    case MasterEvent::Type::refused:
      observer.refusedConnection(place, event.text());
      break;
    case MasterEvent::Type::additional:
      ++counters.additional;
      break;
    case MasterEvent::Type::agentConnected:
      observer.agentConnected(place, deviceOf(event));
      break;
    case MasterEvent::Type::clause:
      observer.clause(place, deviceOf(event), event.text());
      break;
    case MasterEvent::Type::additionalLost:
      --counters.additional;
      if (event.fromAgent()) {
        observer.agentLost(place, deviceOf(event));
      }
      break;
    case MasterEvent::Type::problem:
      observer.problem(event.text());
      break;
  }
}

void DeviceLink::Data::lose(const Place& place, const std::string& why) {
  const auto found = places.find(keyOf(place.host, place.port));
  if (found == places.end()) {
    return;  // it has not told its identity
  }
  silencedPlaces -= found->second.silenced == Reason::none ? 0 : 1;
  const auto device = devices.find(found->second.device);
  if (device != devices.end() && device->second == found->first) {
    // A request that came after the loss, but before this event, has found no connection.
    DeviceQueue* const queue = find(device->first);
    devices.erase(device);
    if (queue != nullptr && !queue->isConnected()) {
      queue->disconnect(Reason::lost, why);
    }
  }
  places.erase(found);
  observer.lost(place, why);
}

DeviceId DeviceLink::Data::deviceOf(const MasterEvent& event) const {
  const std::string& text = event.taskPlace();
  const std::size_t colon = text.find(':');
  if (colon == std::string::npos) {
    return 0;
  }
  const auto port = static_cast<std::uint16_t>(std::stoul(text.substr(colon + 1)));
  const auto place = places.find(keyOf(text.substr(0, colon), port));
  return place == places.end() ? 0 : place->second.device;
}

// The place belongs to the device @p other from now on.
void DeviceLink::Data::unbind(Connected& connected, PlaceKey key, DeviceId other) {
  const auto bound = devices.find(connected.device);
  if (connected.device == other || bound == devices.end() || bound->second != key) {
    return;
  }
  devices.erase(bound);
  DeviceQueue* const queue = find(connected.device);
  if (queue != nullptr) {
    queue->disconnect(Reason::lost, "the connection belongs to another device");
  }
}

DeviceQueue* DeviceLink::Data::find(DeviceId device) const {
  const auto found = queues.find(device);
  return found == queues.end() ? nullptr : found->second.get();
}

DeviceQueue& DeviceLink::Data::queueOf(DeviceId device) {
  std::unique_ptr<DeviceQueue>& queue = queues[device];
  if (!queue) {
    queue = std::make_unique<DeviceQueue>(
        DeviceQueue::Context{loop, spool, settings.ioTimeout, settings.queueLength},
        DeviceQueue::Events{
            [this](CallId id, const RequestHead& head, Router::Done callback, Answer answer) {
              done(id, head, std::move(callback), std::move(answer));
            },
            [this, device] {
              const DeviceId gone = device;  // the queue owns this function
              queues.erase(gone);
            },
            [this] { ++counters.retries; }});
    connect(device, *queue);
  }
  return *queue;
}

void DeviceLink::Data::connect(DeviceId device, DeviceQueue& queue) {
  const auto found = devices.find(device);
  if (found != devices.end()) {
    queue.connect([this, &found](runel::MasterUser::Handlers handlers) {
      return master->attach(textOf(found->second), std::move(handlers));
    });
  }
}

void DeviceLink::Data::done(CallId id, const RequestHead& head, Router::Done callback,
                            Answer answer) {
  pending.erase(id);
  counters.bytesFromDevices += answer.payload.size();
  ++counters.requests[{head.known ? head.task : "other", answer.outcome}];
  if (callback) {
    calls.add([callback = std::move(callback), answer = std::move(answer)] { callback(answer); });
  }
}

// What ends a call at once, if anything.
std::optional<Answer> DeviceLink::Data::refusal(const Call& call, const RequestHead& head) const {
  const auto refused = [](Reason reason, const std::string& text) {
    return Answer{Outcome::notRun, reason, text, {}};
  };
  if (stopped) {
    return refused(Reason::stopping, "the gateway is stopping");
  }
  if (!head.isRecord) {
    return refused(Reason::refused, "not a task record");
  }
  if (call.request.size() > kLargestRequest) {
    return refused(Reason::tooLarge, "the request exceeds 256 MiB");
  }
  if (!head.answered && call.request.size() >= kLargePayload) {
    return refused(Reason::refused, "a restart has no argument");
  }
  const DeviceQueue* const queue = find(call.device);
  const auto device = devices.find(call.device);
  if (device == devices.end()) {
    return refused(Reason::offline, "the device is not connected");
  }
  const Reason silenced = places.at(device->second).silenced;
  if (silenced != Reason::none) {
    return refused(silenced, sentenceOf(silenced));
  }
  if (queue != nullptr && queue->isFull()) {
    return refused(Reason::busy, busyText(queue->state()));
  }
  if (call.deadline <= runel::Clock::now()) {
    return refused(Reason::deadline, "the deadline passed before the request was sent");
  }
  return std::nullopt;
}

DeviceLink::DeviceLink(runel::Loop& loop, LinkSettings settings,
                       std::shared_ptr<PayloadSpool> spool, LinkObserver& observer)
    : data_(std::make_unique<Data>(loop, std::move(settings), std::move(spool), observer)) {}

DeviceLink::~DeviceLink() = default;

runel::Result<void> DeviceLink::open() {
  return data_->open();
}

std::vector<std::uint16_t> DeviceLink::ports() const {
  return data_->master->ports();
}

void DeviceLink::stop() {
  data_->stopped = true;
  std::vector<DeviceQueue*> queues;
  for (const auto& [device, queue] : data_->queues) {
    queues.push_back(queue.get());
  }
  for (DeviceQueue* const queue : queues) {
    queue->stop(Reason::stopping, "the gateway is stopping");
  }
}

void DeviceLink::bind(const Place& place, DeviceId device) {
  const PlaceKey key = keyOf(place.host, place.port);
  const auto found = data_->places.find(key);
  if (found == data_->places.end()) {
    return;
  }
  if (found->second.silenced != Reason::none) {
    if (!data_->master->resume(textOf(key))) {
      return;  // it ends, and the device connects again
    }
    found->second.silenced = Reason::none;
    --data_->silencedPlaces;
  }
  data_->unbind(found->second, key, device);
  const auto bound = data_->devices.find(device);
  if (bound != data_->devices.end() && bound->second == key) {
    return;
  }
  found->second.device = device;
  data_->devices[device] = key;
  DeviceQueue* const queue = data_->find(device);
  if (queue == nullptr) {
    return;
  }
  if (queue->isConnected()) {
    queue->disconnect(Reason::lost, "the device has connected again");
  }
  if (data_->find(device) != nullptr) {
    data_->connect(device, *queue);
  }
}

void DeviceLink::silence(const Place& place, Reason reason) {
  const auto found = data_->places.find(keyOf(place.host, place.port));
  if (found == data_->places.end()) {
    return;
  }
  if (found->second.silenced == Reason::none) {
    ++data_->silencedPlaces;
  }
  found->second.silenced = reason;
  const auto bound = data_->devices.find(found->second.device);
  const bool current = bound != data_->devices.end() && bound->second == found->first;
  DeviceQueue* const queue = current ? data_->find(found->second.device) : nullptr;
  if (queue != nullptr) {
    queue->disconnect(reason, sentenceOf(reason));
  }
  (void)data_->master->silence(textOf(found->first));  // false: it is silent already
}

CallId DeviceLink::send(Call call, Done done) {
  const CallId id = ++data_->lastCall;
  RequestHead head = headOf(call.request);
  std::optional<Answer> refused = data_->refusal(call, head);
  if (refused) {
    data_->done(id, head, std::move(done), std::move(*refused));
    return id;
  }
  data_->pending[id] = call.device;
  data_->counters.bytesToDevices += call.request.size();
  DeviceQueue& queue = data_->queueOf(call.device);
  queue.add(id, std::move(call), std::move(head), std::move(done));
  return id;
}

void DeviceLink::cancel(CallId id) {
  const auto found = data_->pending.find(id);
  if (found != data_->pending.end()) {
    data_->find(found->second)->cancel(id);
  }
}

QueueState DeviceLink::queue(DeviceId device) const {
  const DeviceQueue* const queue = data_->find(device);
  return queue == nullptr ? QueueState() : queue->state();
}

runel::Result<void> DeviceLink::sendClause(DeviceId device, const std::string& clause) {
  const auto found = data_->devices.find(device);
  if (found == data_->devices.end()) {
    return runel::Error(runel::Kind::link, runel::Cause::other, "the device is not connected");
  }
  const auto place = data_->places.find(found->second);
  if (place != data_->places.end() && place->second.silenced != Reason::none) {
    return runel::Error(runel::Kind::link, runel::Cause::refused,
                        sentenceOf(place->second.silenced));
  }
  return data_->master->sendClause(textOf(found->second), clause);
}

LinkCounters DeviceLink::counters() const {
  LinkCounters counters = data_->counters;
  counters.connected = data_->places.size() - data_->silencedPlaces;
  if (data_->master) {
    counters.silent = data_->master->silent();
    counters.unidentified = data_->master->unidentified();
  }
  counters.bound = data_->devices.size();
  counters.queued = data_->pending.size();
  counters.busyDevices = data_->queues.size();
  counters.spooled = data_->spool->used();
  return counters;
}

}  // namespace runelgw
