// SPDX-License-Identifier: Apache-2.0
// The transfers of the blocking device.
#include <optional>
#include <utility>

#include <runel/device.h>
#include <runel/transfer.h>

#include "client/blocking/device_data.h"

namespace runel {
inline namespace v1 {

// A lost connection is the error of the report.
Result<TransferReport> Device::Data::transfer(const Start& start) {
  if (!address) {
    return address.error();
  }
  std::optional<TransferReport> report;
  bool done = false;
  loop.step();  // detects a connection that was closed meanwhile
  const auto running = start([&](TransferReport ended) {
    report = std::move(ended);
    done = true;
  });
  runUntil(done);
  return *std::move(report);
}

Result<TransferReport> Device::push(const std::vector<std::string>& sources,
                                    const std::string& target, const TransferOptions& options) {
  const Result<PushSources> scanned =
      PushSources::scan(sources, options.recursive(), options.excludes());
  if (!scanned) {
    return scanned.error();
  }
  return data_->transfer([&](AsyncTransfer::Done done) {
    return AsyncTransfer::push(data_->engine, *scanned, target, options, std::move(done));
  });
}

Result<TransferReport> Device::sync(const std::string& source, const std::string& target,
                                    const TransferOptions& options) {
  const Result<PushSources> scanned = PushSources::scan({source}, true, options.excludes());
  if (!scanned) {
    return scanned.error();
  }
  return data_->transfer([&](AsyncTransfer::Done done) {
    return AsyncTransfer::sync(data_->engine, *scanned, target, options, std::move(done));
  });
}

Result<TransferReport> Device::pull(const std::vector<std::string>& sources,
                                    const std::string& target, const TransferOptions& options) {
  return data_->transfer([&](AsyncTransfer::Done done) {
    return AsyncTransfer::pull(data_->engine, sources, target, options, std::move(done));
  });
}

}  // namespace v1
}  // namespace runel
