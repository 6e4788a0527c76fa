// SPDX-License-Identifier: Apache-2.0
// System calls that fail, in a child process of the test.
#ifndef TESTS_CONTRACT_LINUX_REFUSED_CALLS_H_
#define TESTS_CONTRACT_LINUX_REFUSED_CALLS_H_

#include <functional>
#include <string>

namespace zell::test {

/// From now on every system call @p number of this process fails with @p error. This is permanent,
/// and programs that the process starts inherit it.
void refuseCalls(int number, int error);

/// Runs @p action in a child process and returns its result. A child that crashes or hangs for 60 s
/// returns "died of signal N".
std::string inChild(const std::function<std::string()>& action);

}  // namespace zell::test

#endif  // TESTS_CONTRACT_LINUX_REFUSED_CALLS_H_
