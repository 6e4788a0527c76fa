// SPDX-License-Identifier: Apache-2.0
// A fake of the system's part of the device support library: records the operations and returns
// what the test sets. The portable part is the real one.
#ifndef TESTS_FAKES_ZELL_FAKE_ZELL_H_
#define TESTS_FAKES_ZELL_FAKE_ZELL_H_

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include <sys/stat.h>

#include <zell/device_type.h>
#include <zell/slave_status.h>

namespace zell::test {

/// How a program of the fake device ends.
struct FakeProgram {
  std::string output;
  /// The status in the reply; the default is exit status 0.
  ResultStatus end{SlaveStatus::success, WatchProcessState_t::exited, 0, 0, 0};
};

/// The status of an operation that failed with @p error.
ResultStatus failure(int error);

/// The device that all proxies share, one per process. `reset` restores the initial state.
struct FakeDevice {
  static FakeDevice& instance();
  /// Also stops the LED controller from blinking.
  void reset();

  /// Every call in order, of all proxies and of the LED controller, its arguments between blanks:
  /// "exec /bin/echo a b | 5", "writeFile PATH DATA", "access PATH 4", "setLeds 1 0", "reboot"...
  std::vector<std::string> calls;
  /// The number of calls of the LED controller's `poll`, which are not recorded.
  int polls = 0;
  /// Called with each entry of `calls`, and with "poll", before the operation has an effect. It may
  /// inspect the state or throw.
  std::function<void(const std::string& call)> onCall;

  /// Operations (by name: "writeFile", "kill", "setLeds"...) that fail with an errno value.
  std::map<std::string, int> failures;

  /// Contents of the files by path. The path alone determines the directory of a file.
  std::map<std::string, std::string> files;
  /// Results of stat and lstat by path; the default is a regular file with the size of its content.
  std::map<std::string, struct stat> stats;
  /// Results of readdir by path, in place of the files below it.
  std::map<std::string, std::vector<std::string>> directories;
  /// Results of realpath by path; the default is the path itself.
  std::map<std::string, std::string> realPaths;
  /// The output of walktree.
  std::string tree;
  std::uint64_t freeBlocks = 1000;

  /// Results of programs by command line ("/bin/echo a b"); the default is no output and exit
  /// status 0. A program that cannot be started is a `failure`.
  std::map<std::string, FakeProgram> programs;
  /// Names of running processes.
  std::vector<std::string> processes;

  std::string hostId = "0123abcd";
  DeviceType_t deviceType = DeviceType_t::controller;
  bool firstLed = false;
  bool secondLed = false;

  /// Records @p call.
  void record(const std::string& call);
  /// The errno value with which the operation @p name fails: that of the test, or @p otherwise; 0
  /// for success.
  [[nodiscard]] static int errorOf(const std::string& name, int otherwise = 0);
};

/// The state of one proxy.
struct FakeProxy {
  FakeProxy();
  ~FakeProxy();
  FakeProxy(const FakeProxy&) = delete;
  FakeProxy& operator=(const FakeProxy&) = delete;

  /// The fakes of all existing proxies, oldest first.
  static const std::vector<FakeProxy*>& living();
  /// The newest of them; ends the test if there is no proxy.
  static FakeProxy& newest();

  /// The calls of this proxy, as in FakeDevice::calls.
  std::vector<std::string> calls;
  /// Whether it has a background program.
  bool background = false;
  std::string output;

  /// Records @p call here and in the device.
  void record(const std::string& call);
};

}  // namespace zell::test

#endif  // TESTS_FAKES_ZELL_FAKE_ZELL_H_
