// SPDX-License-Identifier: Apache-2.0
// accept4(2) with errors that a test cannot provoke.
#ifndef TESTS_UNIT_SERVER_FAILING_ACCEPT_H_
#define TESTS_UNIT_SERVER_FAILING_ACCEPT_H_

#include <functional>

namespace zell::test {

/// During its lifetime, the first accept4 fails with @p error and leaves the connection in the
/// queue; later calls reach the kernel. Replaces accept4 in every program that links this. At most
/// one object may exist.
class FailingAccept {
 public:
  explicit FailingAccept(int error);
  ~FailingAccept();
  FailingAccept(const FailingAccept&) = delete;
  FailingAccept& operator=(const FailingAccept&) = delete;

  /// Runs before each accept4.
  std::function<void()> before;

  /// Called by the replaced function: the errno value to fail with, or 0.
  int note();

 private:
  int error_;
};

}  // namespace zell::test

#endif  // TESTS_UNIT_SERVER_FAILING_ACCEPT_H_
