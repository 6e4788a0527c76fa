// SPDX-License-Identifier: Apache-2.0
// Shared parts of the tests of the Linux device library.
#ifndef TESTS_CONTRACT_LINUX_PROXY_TEST_H_
#define TESTS_CONTRACT_LINUX_PROXY_TEST_H_

#include <cerrno>
#include <chrono>
#include <functional>
#include <sstream>
#include <string>

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <zell/slave_proxy_local.h>

#include "contract/fields.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace zell::test {

/// A user without privileges.
inline constexpr uid_t kUnprivileged = 65534;

inline const char* const kSuccess = "0 0 0 0 0";

/// The status fields of a failure with @p error.
inline std::string failureWith(int error) {
  return "1 0 1 " + std::to_string(error) + " 0";
}

/// The status fields of a program that its limit ended with @p signal.
inline std::string stoppedWith(int signal) {
  return "3 4 -1 " + std::to_string(ETIMEDOUT) + " " + std::to_string(signal);
}

/// A stream with the content @p text.
std::ostringstream streamOf(const std::string& text);

/// The processor time of this process.
std::chrono::nanoseconds processorTime();

/// Waits until @p condition holds; false after 30 s.
bool becomesTrue(const std::function<bool()>& condition);

/// The state letter of the process @p pid ("R", "S", "Z"...), empty if there is no such process.
std::string stateOf(int pid);

/// Whether the process @p pid exists and is not a zombie.
bool lives(int pid);

/// The lstat(2) of @p path; fails the test if it is missing.
struct stat statusOf(const std::string& path);

class ProxyTest : public testing::Test {
 protected:
  /// The status fields after writing @p data to @p path.
  std::string write(const std::string& path, const std::string& data);
  std::string append(const std::string& path, const std::string& data);
  /// The status fields after reading @p path; stores the content in `text_`.
  std::string read(const std::string& path);
  /// The status fields after running @p script with the shell.
  std::string shell(const std::string& script, int limit = 0);

  LogCapture log_;
  TempDir dir_;
  SlaveProxyLocal proxy_;
  std::string text_;
};

}  // namespace zell::test

#endif  // TESTS_CONTRACT_LINUX_PROXY_TEST_H_
