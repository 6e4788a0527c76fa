// SPDX-License-Identifier: Apache-2.0
#include <utility>

#include <runel/async_device.h>

#include "client/io/dialer.h"
#include "client/io/spool.h"

namespace runel {
inline namespace v1 {

struct DeviceOptions::Data {
  Milliseconds connectTimeout{10000};
  Milliseconds ioTimeout{30000};
  std::chrono::seconds programLimit{0};
  std::string masterSocket;
  int retries = 0;
  Milliseconds retryPause{200};
  std::shared_ptr<Spool> spool;
  std::shared_ptr<Dialer> dialer;
};

DeviceOptions::DeviceOptions() : data_(std::make_unique<Data>()) {}
DeviceOptions::DeviceOptions(const DeviceOptions& other)
    : data_(std::make_unique<Data>(*other.data_)) {}

DeviceOptions& DeviceOptions::operator=(const DeviceOptions& other) {
  *data_ = *other.data_;
  return *this;
}

DeviceOptions::~DeviceOptions() = default;

DeviceOptions& DeviceOptions::setConnectTimeout(Milliseconds time) {
  data_->connectTimeout = time;
  return *this;
}

DeviceOptions& DeviceOptions::setIoTimeout(Milliseconds time) {
  data_->ioTimeout = time;
  return *this;
}

DeviceOptions& DeviceOptions::setTimeout(Milliseconds time) {
  return setIoTimeout(time);
}

DeviceOptions& DeviceOptions::setProgramLimit(std::chrono::seconds limit) {
  data_->programLimit = limit;
  return *this;
}

DeviceOptions& DeviceOptions::setMasterSocket(std::string path) {
  data_->masterSocket = std::move(path);
  return *this;
}

DeviceOptions& DeviceOptions::setRetries(int times, Milliseconds pause) {
  data_->retries = times;
  data_->retryPause = pause;
  return *this;
}

Milliseconds DeviceOptions::connectTimeout() const {
  return data_->connectTimeout;
}

Milliseconds DeviceOptions::ioTimeout() const {
  return data_->ioTimeout;
}

Milliseconds DeviceOptions::timeout() const {
  return ioTimeout();
}

std::chrono::seconds DeviceOptions::programLimit() const {
  return data_->programLimit;
}

const std::string& DeviceOptions::masterSocket() const {
  return data_->masterSocket;
}

int DeviceOptions::retries() const {
  return data_->retries;
}

Milliseconds DeviceOptions::retryPause() const {
  return data_->retryPause;
}

void DeviceSpool::set(DeviceOptions& options, std::shared_ptr<Spool> spool) {
  options.data_->spool = std::move(spool);
}

const std::shared_ptr<Spool>& DeviceSpool::of(const DeviceOptions& options) {
  return options.data_->spool;
}

void DialedLine::gave(std::uint64_t bytes) {
  const std::lock_guard<std::mutex> lock(mutex_);
  given_ = bytes;
}

std::uint64_t DialedLine::given() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return given_;
}

void DialedLine::end(const Error& why) {
  const std::lock_guard<std::mutex> lock(mutex_);
  end_ = why;
}

std::optional<Error> DialedLine::ended() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return end_;
}

void DeviceDialer::set(DeviceOptions& options, std::shared_ptr<Dialer> dialer) {
  options.data_->dialer = std::move(dialer);
}

const std::shared_ptr<Dialer>& DeviceDialer::of(const DeviceOptions& options) {
  return options.data_->dialer;
}

}  // namespace v1
}  // namespace runel
