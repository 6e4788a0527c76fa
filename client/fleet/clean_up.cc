// SPDX-License-Identifier: Apache-2.0
#include "client/fleet/clean_up.h"

#include <utility>

namespace runel {
namespace {

// The device may be unreachable, or busy with requests of the lost connection.
constexpr Milliseconds kConnectTime{3000};
constexpr Milliseconds kAnswerTime{15000};
// The device may still execute requests of the lost connection and create a removed file again,
// each after some time on a busy device. So the removal is repeated until the file is missing
// kLooksWithoutFile times in a row, at most kMostLooks times.
constexpr Milliseconds kLookAgain{250};
constexpr int kLooksWithoutFile = 5;
constexpr int kMostLooks = 20;

DeviceOptions quick(DeviceOptions options) {
  options.setConnectTimeout(kConnectTime).setIoTimeout(kAnswerTime);
  return options;
}

}  // namespace

CleanUp::CleanUp(Loop& loop, const Address& address, const DeviceOptions& options, Request request,
                 std::function<void()> done)
    : loop_(loop),
      request_(std::move(request)),
      device_(loop, address, quick(options)),
      done_(std::move(done)) {
  request_.setExtraTimeout(Milliseconds(0));
  ask();
}

CleanUp::~CleanUp() {
  loop_.cancel(pause_);
}

void CleanUp::ask() {
  device_.ask(request_, [this](const Reply& reply) { answered(reply); });
}

void CleanUp::answered(const Reply& reply) {
  ++looks_;
  withoutFile_ = reply.ok() ? 0 : withoutFile_ + 1;
  const bool comesBack = reply.answered() && request_.words().front() == "unlink";
  if (comesBack && withoutFile_ < kLooksWithoutFile && looks_ < kMostLooks) {
    pause_ = loop_.after(kLookAgain, [this] { ask(); });
    return;
  }
  const std::function<void()> done = std::move(done_);
  done();
}

}  // namespace runel
