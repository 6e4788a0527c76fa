// SPDX-License-Identifier: Apache-2.0
// The size limits of replies.
#ifndef RUNEL_CORE_REPLY_LIMIT_H_
#define RUNEL_CORE_REPLY_LIMIT_H_

#include <cstddef>

#include "protocol/protocol.h"
#include "protocol/task_table.h"

namespace runel {

/// The size limit, in bytes, of the reply of a task that returns little more than its status.
constexpr std::size_t kSmallReply = 65536;

/// The size limit, in bytes, of a reply to a task with these @p traits; null for an unknown task.
constexpr std::size_t replyLimitOf(const zell::TaskTraits* traits) {
  if (traits == nullptr || !zell::isLong(traits->text)) {
    return kSmallReply;
  }
  return traits->text == zell::TaskText::output ? zell::kMaxProgramOutput + kSmallReply
                                                : zell::kMaxFramePayload;
}

}  // namespace runel

#endif  // RUNEL_CORE_REPLY_LIMIT_H_
