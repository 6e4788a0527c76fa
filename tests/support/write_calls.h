// SPDX-License-Identifier: Apache-2.0
// Sees a program's calls of write(2), and answers some in the kernel's place.
#ifndef TESTS_SUPPORT_WRITE_CALLS_H_
#define TESTS_SUPPORT_WRITE_CALLS_H_

#include <deque>
#include <functional>
#include <string>
#include <vector>

#include <sys/types.h>

namespace zell::test {

/// Collects the calls from its construction to its destruction; one at a time. write() is replaced
/// in every program that uses this, and goes to the kernel unless an answer waits.
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

  /// The next call that has no answer yet gets @p result, and errno @p error where that is not 0;
  /// nothing is written.
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
