// SPDX-License-Identifier: Apache-2.0
// A runelctl process that uses a device through the master.
#ifndef RUNELCTL_CONTROL_ATTACHMENT_H_
#define RUNELCTL_CONTROL_ATTACHMENT_H_

#include <functional>
#include <memory>
#include <string>
#include <utility>

#include <runel/async_master.h>
#include <runel/loop.h>

#include "base/unique_fd.h"
#include "client/io/channel.h"

namespace runelctl {

/// Forwards requests and answers in complete frames: an incomplete frame never reaches the device.
class Attachment {
 public:
  /// @p end: the process has disconnected, or the device is lost. The attachment may be destroyed
  /// from the next turn of the loop.
  Attachment(runel::Loop& loop, std::function<void()> end) : loop_(loop), end_(std::move(end)) {}
  Attachment(const Attachment&) = delete;
  Attachment& operator=(const Attachment&) = delete;

  /// For attaching it to a device.
  [[nodiscard]] runel::MasterUser::Handlers handlers();
  /// Connects the process on @p socket to the device of @p user.
  void start(zell::UniqueFd socket, std::unique_ptr<runel::MasterUser> user);

 private:
  void pass(std::string&& payload);
  void watchBacklog();
  void finish();

  runel::Loop& loop_;
  const std::function<void()> end_;
  std::unique_ptr<runel::Channel> channel_;
  std::unique_ptr<runel::MasterUser> user_;  // empty after the end
  bool slow_ = false;  // the process reads its answers more slowly than the device sends them
};

}  // namespace runelctl

#endif  // RUNELCTL_CONTROL_ATTACHMENT_H_
