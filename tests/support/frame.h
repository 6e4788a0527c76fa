// SPDX-License-Identifier: Apache-2.0
#ifndef TESTS_SUPPORT_FRAME_H_
#define TESTS_SUPPORT_FRAME_H_

#include <string>

namespace zell::test {

/// @p payload as one frame of the task protocol.
inline std::string frame(const std::string& payload) {
  return '\x01' + std::to_string(payload.size()) + '\x02' + payload;
}

}  // namespace zell::test

#endif  // TESTS_SUPPORT_FRAME_H_
