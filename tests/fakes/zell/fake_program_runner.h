// SPDX-License-Identifier: Apache-2.0
// The private part of a proxy, which here refers to the proxy's fake.
#ifndef TESTS_FAKES_ZELL_FAKE_PROGRAM_RUNNER_H_
#define TESTS_FAKES_ZELL_FAKE_PROGRAM_RUNNER_H_

#include <string>

#include "fakes/zell/fake_zell.h"

namespace zell {

class ProgramRunner {
 public:
  /// Records @p call.
  void record(const std::string& call);
  /// The errno value with which the operation @p name fails: that of the test, or @p otherwise; 0
  /// for success.
  [[nodiscard]] static int errorOf(const std::string& name, int otherwise = 0);

  test::FakeProxy fake;
};

}  // namespace zell

#endif  // TESTS_FAKES_ZELL_FAKE_PROGRAM_RUNNER_H_
