// SPDX-License-Identifier: Apache-2.0
// A fake of base/system.h: records the calls and returns what the test sets.
#ifndef TESTS_FAKES_SYSTEM_FAKE_SYSTEM_H_
#define TESTS_FAKES_SYSTEM_FAKE_SYSTEM_H_

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include <netinet/in.h>
#include <sys/types.h>

namespace zell::test {

/// Thrown by the fake exit().
struct ProcessExit {
  int status;
};

/// State of the fake, one per process. `reset` restores the initial state.
struct FakeSystem {
  static FakeSystem& instance();
  void reset() { *this = FakeSystem(); }

  /// Every call in order: "reboot 0x1234567", "sync", "sleep 3", "popen COMMAND r", "pclose",
  /// "pclose null", "system COMMAND", "fork", "kill PID SIGNAL", "exit STATUS".
  std::vector<std::string> calls;

  /// Simulated time; `sleep` advances it.
  std::chrono::nanoseconds now{std::chrono::hours(1)};
  /// If set, returns the time in place of `now`.
  std::function<std::chrono::nanoseconds()> clock;
  /// If set, returns the real duration of a sleep, which a signal may end early.
  std::function<std::chrono::nanoseconds(unsigned)> sleepTakes;

  /// The output of a `popen` stream, and whether `popen` succeeds.
  std::string popenOutput;
  bool popenFails = false;
  int systemResult = 0;
  int systemErrno = 0;
  int rebootResult = 0;
  int rebootErrno = 0;
  /// The result of `fork`: 0 continues as the child, above 0 as the parent, below 0 fails.
  pid_t forkResult = 0;
  /// The processes for which `kill` with signal 0 succeeds. Other signals always succeed.
  std::vector<pid_t> living;

  /// Name lookups are real unless this is set. gethostbyname_r then returns `lookupResult`, sets
  /// h_errno to `lookupError` and returns a host entry with `lookupAddresses`, or null without any.
  bool fakeLookup = false;
  int lookupResult = 0;
  int lookupError = 0;
  std::vector<in_addr> lookupAddresses;
  /// The buffer size of each faked lookup.
  std::vector<std::size_t> lookupSizes;
};

}  // namespace zell::test

#endif  // TESTS_FAKES_SYSTEM_FAKE_SYSTEM_H_
