// SPDX-License-Identifier: Apache-2.0
// Records the system calls on files and child processes, and makes them fail.
#ifndef TESTS_SUPPORT_SPIED_CALLS_H_
#define TESTS_SUPPORT_SPIED_CALLS_H_

#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace zell::test {

/// Records the calls of fsync ("fsync file", "fsync directory"), syncfs, write, renameat,
/// ftruncate, fchown, fchmod, waitpid and waitid while it lives; the kernel still gets them. These
/// can fail, and so can openat ("openat file", "openat directory"), close, read, fstat, fstatat,
/// pwrite, readlinkat, mkdirat, symlinkat and futimens. So can sync_file_range, which does nothing
/// here.
/// All are replaced in every program that links this.
class SpiedCalls {
 public:
  SpiedCalls();
  ~SpiedCalls();
  SpiedCalls(const SpiedCalls&) = delete;
  SpiedCalls& operator=(const SpiedCalls&) = delete;

  /// In place of an error: the call succeeds with 0.
  static constexpr int kReturnsZero = -1;

  /// Makes the call @p name (as recorded) fail with @p error once, after @p passed calls.
  void fail(const std::string& name, int error, int passed = 0) {
    failures_[name] = {error, passed, nullptr};
  }
  /// Makes every call @p name fail with @p error.
  void failAlways(const std::string& name, int error) { failures_[name] = {error, -1, nullptr}; }
  /// Runs @p action once before the call @p name, after @p passed calls.
  void before(const std::string& name, int passed, std::function<void()> action) {
    failures_[name] = {0, passed, std::move(action)};
  }
  /// The recorded calls.
  [[nodiscard]] const std::vector<std::string>& calls() const { return calls_; }

  /// Records a call. Returns the errno value that it must fail with, or 0.
  int note(const std::string& name);

 private:
  struct Failure {
    int error;
    int passed;  // below 0: always
    std::function<void()> action;
  };

  std::vector<std::string> calls_;
  std::map<std::string, Failure> failures_;
};

}  // namespace zell::test

#endif  // TESTS_SUPPORT_SPIED_CALLS_H_
