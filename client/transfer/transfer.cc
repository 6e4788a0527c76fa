// SPDX-License-Identifier: Apache-2.0
// What push, sync and pull have in common for their callers.
#include <runel/transfer.h>

#include <utility>

#include "client/transfer/running.h"

namespace runel {
inline namespace v1 {

Result<PushSources> PushSources::scan(const std::vector<std::string>& paths, bool recursive) {
  return scan(paths, recursive, {});
}

Result<PushSources> PushSources::scan(const std::vector<std::string>& paths, bool recursive,
                                      const std::vector<std::string>& excludes) {
  auto data = std::make_shared<Data>();
  if (const auto error = data->filter.add(excludes)) {
    return *error;
  }
  for (const std::string& path : paths) {
    std::vector<std::string> left;
    auto source = scanLocal(path, recursive, left, data->filter);
    if (!source) {
      return source.error();
    }
    data->sources.push_back(*std::move(source));
    for (const std::string& name : left) {
      data->skipped.push_back(name + ": skipped, not a file, directory or link");
    }
  }
  return PushSources(std::move(data));
}

PushSources::PushSources(std::shared_ptr<const Data> data) : data_(std::move(data)) {}

const std::vector<std::string>& PushSources::skipped() const {
  return data_->skipped;
}

std::size_t PushSources::count(char type) const {
  std::size_t entries = 0;
  for (const LocalSource& source : data_->sources) {
    for (const LocalEntry& entry : source.entries) {
      entries += entry.type == type ? 1 : 0;
    }
  }
  return entries;
}

std::size_t PushSources::files() const {
  return count('-');
}

std::size_t PushSources::directories() const {
  return count('d');
}

std::size_t PushSources::links() const {
  return count('l');
}

std::uint64_t PushSources::bytes() const {
  std::uint64_t bytes = 0;
  for (const LocalSource& source : data_->sources) {
    for (const LocalEntry& entry : source.entries) {
      bytes += entry.size;
    }
  }
  return bytes;
}

TransferReport::TransferReport(std::shared_ptr<const Data> data) : data_(std::move(data)) {}

bool TransferReport::ok() const {
  return data_->complete && !data_->error && data_->warnings.empty();
}

bool TransferReport::complete() const {
  return data_->complete;
}

const std::optional<Error>& TransferReport::error() const {
  return data_->error;
}

const std::vector<std::string>& TransferReport::warnings() const {
  return data_->warnings;
}

const std::vector<std::string>& TransferReport::notes() const {
  return data_->notes;
}

bool TransferReport::partial() const {
  return data_->partial;
}

std::size_t TransferReport::files() const {
  return data_->files;
}

std::uint64_t TransferReport::bytes() const {
  return data_->bytes;
}

std::uint64_t TransferReport::sentBytes() const {
  return data_->bytes - data_->saved;
}

std::uint64_t TransferReport::kept() const {
  return data_->kept;
}

std::size_t TransferReport::removed() const {
  return data_->removed;
}

std::optional<std::uint64_t> TransferReport::resumedAt() const {
  return data_->resumedAt;
}

AsyncTransfer::AsyncTransfer(std::unique_ptr<Data> data) : data_(std::move(data)) {}

AsyncTransfer::~AsyncTransfer() = default;

TransferReport AsyncTransfer::report() const {
  return data_->work->report();
}

std::optional<Request> AsyncTransfer::cleanUp() const {
  return data_->work->leftover();
}

}  // namespace v1
}  // namespace runel
