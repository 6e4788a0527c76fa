// SPDX-License-Identifier: Apache-2.0
#include "control/attachment.h"

#include <cstddef>
#include <utility>

namespace runelctl {
namespace {

constexpr std::size_t kMostAnswersQueued = 8388608;

}  // namespace

Attachment::Attachment(runel::Loop& loop, zell::UniqueFd socket, runel::SlaveLink& link,
                       Events events)
    : link_(link),
      events_(std::move(events)),
      channel_(loop, std::move(socket),
               {[this](std::string&& payload) { pass(std::move(payload)); },
                [this](const Error&) { events_.end(); }, [this] { events_.progress(); }}),
      self_(std::make_shared<Attachment*>(this)) {}

void Attachment::pass(std::string&& payload) {
  link_.forward(std::move(payload),
                [self = std::weak_ptr<Attachment*>(self_)](std::string&& answer) {
                  if (const auto held = self.lock()) {
                    (*held)->channel_.send(std::move(answer));
                  }
                });
}

bool Attachment::slow() const {
  return channel_.queued() > kMostAnswersQueued;
}

void Attachment::setReading(bool reading) {
  if (reading_ != reading) {
    reading_ = reading;
    channel_.setReading(reading);
  }
}

}  // namespace runelctl
