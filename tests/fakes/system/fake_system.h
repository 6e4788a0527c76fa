// SPDX-License-Identifier: Apache-2.0
// The system seam (base/system.h) with nothing behind it: what was asked is recorded, the answers
// are the test's.
#ifndef TESTS_FAKES_SYSTEM_FAKE_SYSTEM_H_
#define TESTS_FAKES_SYSTEM_FAKE_SYSTEM_H_

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include <netinet/in.h>
#include <sys/types.h>

namespace zell::test {

/// Thrown in place of ending the process.
struct ProcessExit {
  int status;
};

/// State of the fake; one for the process. Put it into its initial state with `reset`.
struct FakeSystem {
  static FakeSystem& instance();
  void reset() { *this = FakeSystem(); }

  /// Every call in order: "reboot 0x1234567", "sync", "sleep 3", "popen COMMAND r", "pclose",
  /// "pclose null", "system COMMAND", "fork", "kill PID SIGNAL", "exit STATUS".
  std::vector<std::string> calls;

  /// Virtual time; `sleep` moves it on.
  std::chrono::nanoseconds now{std::chrono::hours(1)};
  /// When set, decides what the clock shows in place of `now`.
  std::function<std::chrono::nanoseconds()> clock;
  /// When set, decides how long a sleep of so many seconds really takes (a signal may end it
  /// early).
  std::function<std::chrono::nanoseconds(unsigned)> sleepTakes;

  /// What a stream of `popen` holds, and whether it can be opened at all.
  std::string popenOutput;
  bool popenFails = false;
  int systemResult = 0;
  int systemErrno = 0;
  int rebootResult = 0;
  int rebootErrno = 0;
  /// The answer of `fork`: 0 goes on as the child, above 0 as the parent, below 0 fails.
  pid_t forkResult = 0;
  /// Signal 0 asks whether a process lives; the ones in here do. Other signals always succeed.
  std::vector<pid_t> living;

  /// Name lookups are real unless this is set. gethostbyname_r then answers `lookupResult`, sets
  /// h_errno to `lookupError` and gives a record of `lookupAddresses`, or no record without any.
  bool fakeLookup = false;
  int lookupResult = 0;
  int lookupError = 0;
  std::vector<in_addr> lookupAddresses;
  /// The size of the work buffer of each lookup that the fake answered.
  std::vector<std::size_t> lookupSizes;
};

}  // namespace zell::test

#endif  // TESTS_FAKES_SYSTEM_FAKE_SYSTEM_H_
