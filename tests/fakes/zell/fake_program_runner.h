// SPDX-License-Identifier: Apache-2.0
// The private part of a proxy, which here is the proxy's fake.
#ifndef TESTS_FAKES_ZELL_FAKE_PROGRAM_RUNNER_H_
#define TESTS_FAKES_ZELL_FAKE_PROGRAM_RUNNER_H_

#include "device/common/program_runner.h"
#include "fakes/zell/fake_zell.h"

namespace zell {

struct ProgramRunner::State {
  test::FakeProxy fake;
};

}  // namespace zell

#endif  // TESTS_FAKES_ZELL_FAKE_PROGRAM_RUNNER_H_
