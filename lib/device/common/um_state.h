// SPDX-License-Identifier: Apache-2.0
// The update manager's state texts. The system's part of the library stores them.
#ifndef ZELL_DEVICE_COMMON_UM_STATE_H_
#define ZELL_DEVICE_COMMON_UM_STATE_H_

#include <string>
#include <string_view>

namespace zell {

/// Stores @p state under @p key durably. Returns 0 or an errno value; EINVAL for a key that is not
/// 1 to 255 letters, digits, `.`, `_` and `-`, or that begins with a dot.
[[nodiscard]] int storeUmState(const std::string& key, std::string_view state);

}  // namespace zell

#endif  // ZELL_DEVICE_COMMON_UM_STATE_H_
