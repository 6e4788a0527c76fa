// SPDX-License-Identifier: Apache-2.0
#ifndef TESTS_SUPPORT_SIZES_H_
#define TESTS_SUPPORT_SIZES_H_

#include <cstddef>

namespace zell::test {

inline constexpr std::size_t kMiB = 1048576;

}  // namespace zell::test

#endif  // TESTS_SUPPORT_SIZES_H_
