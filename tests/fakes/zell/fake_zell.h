// SPDX-License-Identifier: Apache-2.0
// The device operations of the support library with nothing behind them: what was asked is
// recorded, the answers are the test's.
#ifndef TESTS_FAKES_ZELL_FAKE_ZELL_H_
#define TESTS_FAKES_ZELL_FAKE_ZELL_H_

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include <sys/stat.h>

#include <zell/device_type.h>
#include <zell/led_style.h>
#include <zell/slave_status.h>

namespace zell {
class SlaveProxy;
}  // namespace zell

namespace zell::test {

/// How a program of the fake device ends.
struct FakeProgram {
  std::string output;
  /// As the reply carries it; the default is exit status 0.
  ResultStatus end{SlaveStatus::success, WatchProcessState_t::exited, 0, 0, 0};
};

/// The outcome of an operation that failed with @p error.
ResultStatus failure(int error);

/// The device, which all proxies share; one for the process. Put it into its initial state with
/// `reset`.
struct FakeDevice {
  static FakeDevice& instance();
  void reset() { *this = FakeDevice(); }

  /// Every call in order, of all proxies and of the LED controller, its arguments between blanks:
  /// "exec /bin/echo a b | 5", "execLine LINE | 300" (the exec of one string), "system LINE | 0",
  /// "writeFile PATH DATA", "access PATH 4", "changeLeds 1 0", "initialize", "blinkLeds slow",
  /// "reboot"... `poll` of the LED controller is only counted.
  std::vector<std::string> calls;
  int polls = 0;
  /// Called with each entry of `calls`, and with "poll", before the operation does anything. It may
  /// look at the world at that moment, or throw.
  std::function<void(const std::string& call)> onCall;

  /// Operations (by name: "writeFile", "kill", "blinkLeds"...) that fail with an errno value.
  std::map<std::string, int> failures;

  /// Contents of the files, by path. Files are in directories by their paths alone.
  std::map<std::string, std::string> files;
  /// What stat and lstat fill in for a path; others get a regular file of their content's size.
  std::map<std::string, struct stat> stats;
  /// What readdir lists for a path instead of the files below it.
  std::map<std::string, std::vector<std::string>> directories;
  /// What realpath answers for a path instead of the path itself.
  std::map<std::string, std::string> realPaths;
  /// What walktree writes.
  std::string tree;
  std::uint64_t freeBlocks = 1000;

  /// How programs end, by their command line ("/bin/echo a b"); others write nothing and exit with
  /// 0. One that could not be started is a `failure`.
  std::map<std::string, FakeProgram> programs;
  /// Names of running processes.
  std::vector<std::string> processes;

  std::string hostId = "0123abcd";
  DeviceType_t deviceType = DeviceType_t::controller;
  bool firstLed = false;
  bool secondLed = false;
  LedStyle::Type blinking = LedStyle::unknown;
  /// The proxies of the LED controller, oldest first: the last one drives.
  std::vector<const SlaveProxy*> ledProxies;
};

/// What stands behind one proxy.
struct FakeProxy {
  FakeProxy();
  ~FakeProxy();
  FakeProxy(const FakeProxy&) = delete;
  FakeProxy& operator=(const FakeProxy&) = delete;

  /// The ones whose proxies live, oldest first.
  static const std::vector<FakeProxy*>& living();
  /// The newest of them; the test ends when there is none.
  static FakeProxy& newest();

  /// The calls of this proxy, as in FakeDevice::calls.
  std::vector<std::string> calls;
  /// Whether it has a background program.
  bool background = false;
  std::string output;
};

}  // namespace zell::test

#endif  // TESTS_FAKES_ZELL_FAKE_ZELL_H_
