// SPDX-License-Identifier: Apache-2.0
#include "client/master/master_data.h"

#include <utility>

namespace runel {
inline namespace v1 {

MasterOptions::MasterOptions() : data_(std::make_unique<Data>()) {}
MasterOptions::MasterOptions(const MasterOptions& other)
    : data_(std::make_unique<Data>(*other.data_)) {}
MasterOptions& MasterOptions::operator=(const MasterOptions& other) {
  *data_ = *other.data_;
  return *this;
}
MasterOptions::~MasterOptions() = default;

MasterOptions& MasterOptions::setListen(std::string host, std::uint16_t port) {
  data_->listen.front() = {std::move(host), port};
  return *this;
}

MasterOptions& MasterOptions::addListen(std::string host, std::uint16_t port) {
  data_->listen.push_back({std::move(host), port});
  return *this;
}

MasterOptions& MasterOptions::setIdentifyRate(std::size_t devices) {
  data_->identifyRate = devices;
  return *this;
}

MasterOptions& MasterOptions::setHeld(std::size_t connections) {
  data_->held = connections;
  return *this;
}

MasterOptions& MasterOptions::setHistory(std::size_t devices) {
  data_->history = devices;
  return *this;
}

MasterOptions& MasterOptions::setPolicy(Policy policy) {
  data_->policy = std::move(policy);
  return *this;
}

namespace {

Result<void> addNetworks(AccessList& networks, const std::string& list) {
  if (networks.addAddresses(list)) {
    return {};
  }
  return Error(Kind::local, Cause::other,
               "invalid list '" + list + "': expected ADDRESS or ADDRESS/BITS, comma-separated");
}

}  // namespace

Result<void> MasterOptions::allowAddresses(const std::string& list) {
  return addNetworks(data_->access, list);
}

Result<void> MasterOptions::trustProxies(const std::string& list) {
  return addNetworks(data_->proxies, list);
}

Result<void> MasterOptions::setSharedAddresses(const std::string& list) {
  return addNetworks(data_->sharedAddresses, list);
}

Result<void> MasterOptions::allowHostids(const std::string& list) {
  if (data_->access.addHostids(list)) {
    return {};
  }
  return Error(Kind::local, Cause::other,
               "invalid list '" + list + "': expected host identifiers, comma-separated");
}

MasterOptions& MasterOptions::setShared(std::optional<Milliseconds> silence) {
  data_->shared = silence;
  return *this;
}

MasterOptions& MasterOptions::setTimeout(Milliseconds time) {
  data_->timeout = time;
  return *this;
}

MasterEvent::MasterEvent(std::shared_ptr<const Data> data) : data_(std::move(data)) {}
MasterEvent::Type MasterEvent::type() const {
  return data_->type;
}
const std::string& MasterEvent::device() const {
  return data_->device;
}
const std::string& MasterEvent::hostid() const {
  return data_->hostid;
}
const std::string& MasterEvent::deviceType() const {
  return data_->deviceType;
}
const std::string& MasterEvent::host() const {
  return data_->host;
}
std::uint16_t MasterEvent::port() const {
  return data_->port;
}
const std::string& MasterEvent::rawHostid() const {
  return data_->rawHostid;
}
const std::string& MasterEvent::certificate() const {
  return data_->certificate;
}
const std::string& MasterEvent::taskPlace() const {
  return data_->taskPlace;
}
const std::string& MasterEvent::text() const {
  return data_->text;
}
MasterEvent::Refusal MasterEvent::refusal() const {
  return data_->refusal;
}
bool MasterEvent::fromAgent() const {
  return data_->fromAgent;
}

DeviceInfo::DeviceInfo(std::shared_ptr<const Data> data) : data_(std::move(data)) {}
const std::string& DeviceInfo::name() const {
  return data_->name;
}
const std::string& DeviceInfo::hostid() const {
  return data_->hostid;
}
const std::string& DeviceInfo::deviceType() const {
  return data_->deviceType;
}
const std::string& DeviceInfo::host() const {
  return data_->host;
}
std::uint16_t DeviceInfo::port() const {
  return data_->port;
}
const std::string& DeviceInfo::certificate() const {
  return data_->certificate;
}
std::int64_t DeviceInfo::connectedSince() const {
  return data_->since;
}
Milliseconds DeviceInfo::connectedFor() const {
  return data_->age;
}
std::int64_t DeviceInfo::firstSeen() const {
  return data_->history.firstSeen;
}
std::uint64_t DeviceInfo::connects() const {
  return data_->history.connects;
}
std::uint64_t DeviceInfo::losses() const {
  return data_->history.losses;
}
std::int64_t DeviceInfo::lastLoss() const {
  return data_->history.lastLoss;
}
const std::string& DeviceInfo::lastLossReason() const {
  return data_->history.lastReason;
}
std::size_t DeviceInfo::users() const {
  return data_->users;
}
std::uint64_t DeviceInfo::requests() const {
  return data_->history.earlier.requests;
}
std::uint64_t DeviceInfo::bytesToDevice() const {
  return data_->history.earlier.bytesOut;
}
std::uint64_t DeviceInfo::bytesFromDevice() const {
  return data_->history.earlier.bytesIn;
}
std::size_t DeviceInfo::additional() const {
  return data_->additional;
}
std::size_t DeviceInfo::agents() const {
  return data_->agents;
}
std::uint64_t DeviceInfo::clauses() const {
  return data_->clauses;
}

}  // namespace v1
}  // namespace runel
