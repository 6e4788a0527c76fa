// SPDX-License-Identifier: Apache-2.0
#include <utility>

#include <runel/transfer.h>

namespace runel {
inline namespace v1 {
namespace {

constexpr std::size_t kDefaultMemory = 33554432;

}  // namespace

struct TransferOptions::Data {
  bool recursive = false;
  bool resume = true;
  bool checksum = false;
  Delta delta = Delta::automatic;
  bool removes = false;
  bool intoDirectory = false;
  std::string subdirectory;
  std::size_t memory = kDefaultMemory;
  std::function<std::string(std::string_view)> compression;
  bool compressesOnAnyLine = false;
  std::function<std::string(std::string_view)> bzip2;
  std::function<void(const Progress&)> progress;
  std::vector<std::string> excludes;
  bool planOnly = false;
  std::function<void(const TransferChange&)> changeHandler;
};

TransferOptions::TransferOptions() : data_(std::make_shared<Data>()) {}
TransferOptions::TransferOptions(const TransferOptions& other) = default;
TransferOptions& TransferOptions::operator=(const TransferOptions& other) = default;
TransferOptions::~TransferOptions() = default;

// Copies share their data until one of them changes.
TransferOptions::Data& TransferOptions::own() {
  if (data_.use_count() > 1) {
    data_ = std::make_shared<Data>(*data_);
  }
  return *data_;
}

TransferOptions& TransferOptions::setRecursive(bool on) {
  own().recursive = on;
  return *this;
}

TransferOptions& TransferOptions::setResume(bool on) {
  own().resume = on;
  return *this;
}

TransferOptions& TransferOptions::setChecksum(bool on) {
  own().checksum = on;
  return *this;
}

TransferOptions& TransferOptions::setDelta(Delta use) {
  own().delta = use;
  return *this;
}

TransferOptions& TransferOptions::setDelete(bool on) {
  own().removes = on;
  return *this;
}

TransferOptions& TransferOptions::setIntoDirectory(bool on) {
  own().intoDirectory = on;
  return *this;
}

TransferOptions& TransferOptions::setSubdirectory(std::string name) {
  own().subdirectory = std::move(name);
  return *this;
}

TransferOptions& TransferOptions::setMemory(std::size_t bytes) {
  own().memory = bytes;
  return *this;
}

TransferOptions& TransferOptions::setCompression(
    std::function<std::string(std::string_view bytes)> gzip, bool onAnyLine) {
  own().compression = std::move(gzip);
  own().compressesOnAnyLine = onAnyLine;
  return *this;
}

TransferOptions& TransferOptions::setBzip2(
    std::function<std::string(std::string_view bytes)> bzip2) {
  own().bzip2 = std::move(bzip2);
  return *this;
}

TransferOptions& TransferOptions::setProgress(std::function<void(const Progress&)> progress) {
  own().progress = std::move(progress);
  return *this;
}

TransferOptions& TransferOptions::setExcludes(std::vector<std::string> rules) {
  own().excludes = std::move(rules);
  return *this;
}

TransferOptions& TransferOptions::setPlanOnly(bool on) {
  own().planOnly = on;
  return *this;
}

TransferOptions& TransferOptions::setChangeHandler(
    std::function<void(const TransferChange&)> handler) {
  own().changeHandler = std::move(handler);
  return *this;
}

bool TransferOptions::recursive() const {
  return data_->recursive;
}

bool TransferOptions::resume() const {
  return data_->resume;
}

bool TransferOptions::checksum() const {
  return data_->checksum;
}

Delta TransferOptions::delta() const {
  return data_->delta;
}

bool TransferOptions::removes() const {
  return data_->removes;
}

bool TransferOptions::intoDirectory() const {
  return data_->intoDirectory;
}

const std::string& TransferOptions::subdirectory() const {
  return data_->subdirectory;
}

std::size_t TransferOptions::memory() const {
  return data_->memory;
}

const std::function<std::string(std::string_view bytes)>& TransferOptions::compression() const {
  return data_->compression;
}

bool TransferOptions::compressesOnAnyLine() const {
  return data_->compressesOnAnyLine;
}

const std::function<std::string(std::string_view bytes)>& TransferOptions::bzip2() const {
  return data_->bzip2;
}

const std::function<void(const Progress&)>& TransferOptions::progress() const {
  return data_->progress;
}

const std::vector<std::string>& TransferOptions::excludes() const {
  return data_->excludes;
}

bool TransferOptions::planOnly() const {
  return data_->planOnly;
}

const std::function<void(const TransferChange&)>& TransferOptions::changeHandler() const {
  return data_->changeHandler;
}

}  // namespace v1
}  // namespace runel
