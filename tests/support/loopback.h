// SPDX-License-Identifier: Apache-2.0
// Listening sockets on the loopback.
#ifndef TESTS_SUPPORT_LOOPBACK_H_
#define TESTS_SUPPORT_LOOPBACK_H_

#include <cstdint>

#include "base/unique_fd.h"

namespace zell::test {

/// Listens on a free port of 127.0.0.1, stored in @p port. @p flags are those of socket(2), such as
/// SOCK_NONBLOCK. Aborts the test program on failure.
[[nodiscard]] UniqueFd listenOnLoopback(std::uint16_t& port, int flags = 0);

}  // namespace zell::test

#endif  // TESTS_SUPPORT_LOOPBACK_H_
