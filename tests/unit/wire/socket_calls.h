// SPDX-License-Identifier: Apache-2.0
// The calls by which a frame is sent, counted and, where a test says so, answered by it.
#ifndef TESTS_UNIT_WIRE_SOCKET_CALLS_H_
#define TESTS_UNIT_WIRE_SOCKET_CALLS_H_

#include <cstddef>
#include <deque>
#include <functional>
#include <vector>

namespace zell::test {

/// sendmsg(2) and poll(2) of this program, from the construction to the destruction of the one
/// object that may live. Without a wish of the test's they do what they always do.
class SocketCalls {
 public:
  SocketCalls();
  ~SocketCalls();
  SocketCalls(const SocketCalls&) = delete;
  SocketCalls& operator=(const SocketCalls&) = delete;

  int sends = 0;
  int sendFlags = 0;              ///< of the last sendmsg
  std::size_t sendAtMost = 0;     ///< the bytes that one sendmsg takes; 0: as many as it can
  std::deque<int> sendErrors;     ///< the next sendmsg fails with the first of these; 0: does not
  std::vector<int> pollTimeouts;  ///< of every poll, in milliseconds
  std::deque<int> pollAnswers;    ///< what the next polls answer; below 0 an errno value, negated
  /// If set, replaces every poll that has no answer above.
  std::function<int(short events, int timeout)> poll;
};

}  // namespace zell::test

#endif  // TESTS_UNIT_WIRE_SOCKET_CALLS_H_
