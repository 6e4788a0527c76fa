// SPDX-License-Identifier: Apache-2.0
// Reads standard input completely.
#ifndef ZELL_CLIENT_CORE_READ_INPUT_H_
#define ZELL_CLIENT_CORE_READ_INPUT_H_

#include <string>

namespace zell::ctl {

/// Reads standard input to its end into @p content. Returns the error, also for more data than one
/// task can carry; empty for success.
[[nodiscard]] std::string readInput(std::string& content);

}  // namespace zell::ctl

#endif  // ZELL_CLIENT_CORE_READ_INPUT_H_
