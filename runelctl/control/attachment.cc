// SPDX-License-Identifier: Apache-2.0
#include "control/attachment.h"

#include <cstddef>
#include <string>
#include <utility>

namespace runelctl {
namespace {

constexpr std::size_t kMostAnswersQueued = 8388608;

}  // namespace

runel::MasterUser::Handlers Attachment::handlers() {
  return {[this](const runel::Error&) { finish(); },
          [this](bool busy) { channel_->setReading(!busy); }};
}

void Attachment::start(zell::UniqueFd socket, std::unique_ptr<runel::MasterUser> user) {
  user_ = std::move(user);
  channel_ = std::make_unique<runel::Channel>(
      loop_, std::move(socket),
      runel::Channel::Handlers{[this](std::string&& payload) { pass(std::move(payload)); },
                               [this](const runel::Error&) { finish(); },
                               [this] { watchBacklog(); }});
  channel_->setReading(!user_->busy());
}

void Attachment::pass(std::string&& payload) {
  if (user_) {
    user_->forward(std::move(payload), [this](std::string answer) {
      channel_->send(std::move(answer));
      watchBacklog();
    });
  }
}

void Attachment::watchBacklog() {
  const bool slow = channel_->queued() > kMostAnswersQueued;
  if (user_ && std::exchange(slow_, slow) != slow) {
    user_->setReading(!slow);
  }
}

// The process and the device may end at the same time.
void Attachment::finish() {
  if (user_) {
    user_.reset();
    end_();
  }
}

}  // namespace runelctl
