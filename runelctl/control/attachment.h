// SPDX-License-Identifier: Apache-2.0
// A runelctl process that uses a device through the master.
#ifndef RUNELCTL_CONTROL_ATTACHMENT_H_
#define RUNELCTL_CONTROL_ATTACHMENT_H_

#include <functional>
#include <memory>

#include <runel/loop.h>

#include "base/unique_fd.h"
#include "client/io/channel.h"
#include "client/master/slave_link.h"

namespace runelctl {

/// Forwards requests and answers in complete frames: an incomplete frame never reaches the device.
class Attachment {
 public:
  struct Events {
    /// The process has disconnected. The attachment may be destroyed from the next turn of the
    /// loop.
    std::function<void()> end;
    /// Bytes were sent or received, so the fill level of the queues has changed.
    std::function<void()> progress;
  };

  /// @p link must outlive the attachment.
  Attachment(runel::Loop& loop, zell::UniqueFd socket, runel::SlaveLink& link, Events events);
  Attachment(const Attachment&) = delete;
  Attachment& operator=(const Attachment&) = delete;

  /// True while it reads its answers more slowly than the device sends them.
  [[nodiscard]] bool slow() const;
  void setReading(bool reading);

 private:
  void pass(std::string&& payload);

  runel::SlaveLink& link_;
  Events events_;
  runel::Channel channel_;
  bool reading_ = true;
  std::shared_ptr<Attachment*> self_;  // late answers are dropped
};

}  // namespace runelctl

#endif  // RUNELCTL_CONTROL_ATTACHMENT_H_
