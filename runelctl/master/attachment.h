// SPDX-License-Identifier: Apache-2.0
// Another run of runelctl that works on a device through the master.
#ifndef ZELL_RUNELCTL_MASTER_ATTACHMENT_H_
#define ZELL_RUNELCTL_MASTER_ATTACHMENT_H_

#include <functional>
#include <memory>

#include "base/unique_fd.h"
#include "client/channel.h"
#include "client/loop.h"
#include "master/slave_link.h"

namespace zell::ctl {

/// Passes its requests on and its answers back, whole frames only: what it sends half never reaches
/// the device.
class Attachment {
 public:
  struct Events {
    /// It has gone. May be destroyed from the loop's next turn on.
    std::function<void()> end;
    /// It took or sent something, so there may be more or less room than before.
    std::function<void()> progress;
  };

  /// @p link lives at least as long.
  Attachment(Loop& loop, UniqueFd socket, SlaveLink& link, Events events);
  Attachment(const Attachment&) = delete;
  Attachment& operator=(const Attachment&) = delete;

  /// True while it takes its answers more slowly than the device gives them.
  [[nodiscard]] bool slow() const;
  void setReading(bool reading);

 private:
  void pass(std::string&& payload);

  SlaveLink& link_;
  Events events_;
  Channel channel_;
  bool reading_ = true;
  std::shared_ptr<Attachment*> self_;  // answers that come after its end find nobody
};

}  // namespace zell::ctl

#endif  // ZELL_RUNELCTL_MASTER_ATTACHMENT_H_
