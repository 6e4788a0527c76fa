// SPDX-License-Identifier: Apache-2.0
// A kernel without a certain system call, or one that fails.
#ifndef TESTS_SUPPORT_REFUSED_CALL_H_
#define TESTS_SUPPORT_REFUSED_CALL_H_

#include <functional>

namespace zell::test {

/// Runs @p action in a separate thread, in which the system call @p number fails with @p error.
/// Also reaches calls without a function in the C library.
void runWithoutCall(long number, int error, const std::function<void()>& action);

}  // namespace zell::test

#endif  // TESTS_SUPPORT_REFUSED_CALL_H_
