// SPDX-License-Identifier: Apache-2.0
// The part of a proxy that its header keeps hidden; here it leads to the proxy's fake.
#ifndef TESTS_FAKES_ZELL_FAKE_PROGRAM_RUNNER_H_
#define TESTS_FAKES_ZELL_FAKE_PROGRAM_RUNNER_H_

#include <string>

#include "fakes/zell/fake_zell.h"

namespace zell {

class ProgramRunner {
 public:
  /// Notes that @p call was made.
  void record(const std::string& call);
  /// The errno value with which the operation @p name fails, 0 for none; @p otherwise is what it
  /// is without the test's intervention.
  [[nodiscard]] static int errorOf(const std::string& name, int otherwise = 0);

  test::FakeProxy fake;
};

}  // namespace zell

#endif  // TESTS_FAKES_ZELL_FAKE_PROGRAM_RUNNER_H_
