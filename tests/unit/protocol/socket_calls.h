// SPDX-License-Identifier: Apache-2.0
// Counts the system calls that send a frame, and returns results that the test sets.
#ifndef TESTS_UNIT_PROTOCOL_SOCKET_CALLS_H_
#define TESTS_UNIT_PROTOCOL_SOCKET_CALLS_H_

#include <cstddef>
#include <deque>
#include <functional>
#include <vector>

namespace zell::test {

/// Replaces sendmsg(2) and poll(2) of this program during its lifetime. At most one object may
/// exist. Calls without a set result reach the kernel.
class SocketCalls {
 public:
  SocketCalls();
  ~SocketCalls();
  SocketCalls(const SocketCalls&) = delete;
  SocketCalls& operator=(const SocketCalls&) = delete;

  int sends = 0;
  int sendFlags = 0;              ///< of the last sendmsg
  std::size_t sendAtMost = 0;     ///< maximum bytes of one sendmsg; 0: no limit
  std::deque<int> sendErrors;     ///< errno values of the next sendmsg calls; 0: no error
  std::vector<int> pollTimeouts;  ///< of every poll, in milliseconds
  std::deque<int> pollAnswers;    ///< results of the next polls; below 0 a negated errno value
  /// If set, replaces every poll that has no answer above.
  std::function<int(short events, int timeout)> poll;
};

}  // namespace zell::test

#endif  // TESTS_UNIT_PROTOCOL_SOCKET_CALLS_H_
