// SPDX-License-Identifier: Apache-2.0
// The size limit of small replies.
#ifndef RUNEL_CORE_REPLY_LIMIT_H_
#define RUNEL_CORE_REPLY_LIMIT_H_

#include <cstddef>

namespace runel {

/// The size limit, in bytes, of the reply of a task that returns little more than its status.
constexpr std::size_t kSmallReply = 65536;

}  // namespace runel

#endif  // RUNEL_CORE_REPLY_LIMIT_H_
