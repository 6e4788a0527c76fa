// SPDX-License-Identifier: Apache-2.0
// A terminal that a process without one of its own could take by opening it.
#ifndef TESTS_CONTRACT_LINUX_TERMINAL_H_
#define TESTS_CONTRACT_LINUX_TERMINAL_H_

#include <string>

#include "base/unique_fd.h"

namespace zell::test {

/// A new terminal, and this process at the head of a session without one: to be made in a child
/// process of the test. Something waits to be read on it.
class Terminal {
 public:
  Terminal();

  [[nodiscard]] const std::string& path() const { return path_; }
  /// ", nobody's", or what this process has of it.
  [[nodiscard]] std::string ownership() const;

 private:
  UniqueFd master_;
  std::string path_;
};

}  // namespace zell::test

#endif  // TESTS_CONTRACT_LINUX_TERMINAL_H_
