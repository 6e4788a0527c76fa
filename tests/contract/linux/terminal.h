// SPDX-License-Identifier: Apache-2.0
// A terminal that becomes the controlling terminal of a process that opens it.
#ifndef TESTS_CONTRACT_LINUX_TERMINAL_H_
#define TESTS_CONTRACT_LINUX_TERMINAL_H_

#include <string>

#include "base/unique_fd.h"

namespace zell::test {

/// A new terminal with input to read. Makes this process a session leader without a controlling
/// terminal, so construct it in a child process of the test.
class Terminal {
 public:
  Terminal();

  [[nodiscard]] const std::string& path() const { return path_; }
  /// ", unowned", or ", this process's" if it is the controlling terminal of this process.
  [[nodiscard]] std::string ownership() const;

 private:
  UniqueFd master_;
  std::string path_;
};

}  // namespace zell::test

#endif  // TESTS_CONTRACT_LINUX_TERMINAL_H_
