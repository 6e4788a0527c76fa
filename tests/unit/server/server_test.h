// SPDX-License-Identifier: Apache-2.0
// The initial state of every test of the framework, and checks at its end.
#ifndef TESTS_UNIT_SERVER_SERVER_TEST_H_
#define TESTS_UNIT_SERVER_SERVER_TEST_H_

#include <csignal>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "fakes/system/fake_system.h"
#include "support/log_capture.h"

namespace zell::test {

// Ports of the tests; no other process listens in a test's world.
constexpr int kPort = 6001;
constexpr int kOtherPort = 6002;
constexpr int kMasterPort = 6012;

/// The number at the end of @p line: in most lines, a descriptor.
int lastNumber(const std::string& line);
/// Whether @p fd is an open descriptor.
bool isOpen(int fd);

/// Resets the static flags, the signals and the fake system, collects the log, and fails a test
/// that leaks or closes a descriptor of others.
class ServerTest : public ::testing::Test {
 protected:
  ServerTest();
  ~ServerTest() override;
  void SetUp() override;
  void TearDown() override;

  /// The lines since the last call, as "LEVEL text" (LEVEL as in "INFO").
  std::vector<std::string> lines();
  /// As `lines`, without the level DEBUG.
  std::vector<std::string> linesAboveDebug();

  LogCapture log;
  FakeSystem& sys = FakeSystem::instance();

 private:
  std::vector<int> descriptors_;
  struct sigaction before_[32] = {};
};

}  // namespace zell::test

#endif  // TESTS_UNIT_SERVER_SERVER_TEST_H_
