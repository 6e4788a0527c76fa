// SPDX-License-Identifier: Apache-2.0
// Records a program's calls of write(2), and returns set results for some of them.
#ifndef TESTS_SUPPORT_WRITE_CALLS_H_
#define TESTS_SUPPORT_WRITE_CALLS_H_

#include <deque>
#include <functional>
#include <string>
#include <vector>

#include <sys/types.h>

namespace zell::test {

/// Collects the calls from its construction to its destruction. At most one object may exist.
/// Replaces write() in every program that links this; calls reach the kernel unless an answer is
/// set.
class WriteCalls {
 public:
  struct Call {
    int fd;
    std::string bytes;
    bool operator==(const Call& other) const { return fd == other.fd && bytes == other.bytes; }
  };

  WriteCalls();
  ~WriteCalls();
  WriteCalls(const WriteCalls&) = delete;
  WriteCalls& operator=(const WriteCalls&) = delete;

  /// Sets an answer for a further call: it writes nothing and returns @p result, with errno @p
  /// error unless that is 0.
  void answer(ssize_t result, int error = 0) { answers_.push_back({result, error}); }
  [[nodiscard]] const std::vector<Call>& calls() const { return calls_; }

  /// If set, runs before each call.
  std::function<void(int fd)> before;

  // For the replaced function.
  ssize_t write(int fd, const void* bytes, std::size_t count);

 private:
  struct Answer {
    ssize_t result;
    int error;
  };

  std::deque<Answer> answers_;
  std::vector<Call> calls_;
};

}  // namespace zell::test

#endif  // TESTS_SUPPORT_WRITE_CALLS_H_
