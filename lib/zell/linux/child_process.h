// SPDX-License-Identifier: Apache-2.0
// One started program, from its start until it is reaped.
#ifndef ZELL_LINUX_CHILD_PROCESS_H_
#define ZELL_LINUX_CHILD_PROCESS_H_

#include <list>
#include <optional>
#include <string>
#include <vector>

#include <sys/types.h>

namespace zell {

/// Holds at most one program. While it is held its process id cannot go to another process, since
/// nobody else reaps it; so signals always reach the right one.
class ChildProcess {
 public:
  ChildProcess() = default;
  ~ChildProcess() { forget(); }
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  /// Starts argv[0], searched in PATH when it has no slash, in a process group of its own, with
  /// default signal dispositions, an empty signal mask, /dev/null as standard input, @p output
  /// (borrowed) as standard output and error, and no other descriptor. 0, or the errno value that
  /// kept it from starting. Not to be called while a program is held.
  [[nodiscard]] int start(const std::vector<std::string>& argv, int output);

  [[nodiscard]] bool held() const { return !pid_.empty(); }
  /// The process id; only while a program is held.
  [[nodiscard]] pid_t pid() const { return pid_.front(); }
  /// Whether the program has ended. It stays to be reaped.
  [[nodiscard]] bool hasEnded() const;
  /// Sends @p signal to the program and its process group.
  void signal(int signal) const;
  /// Blocks until the program has ended, lets go of it, and answers its wait status; nothing when
  /// the system cannot tell.
  std::optional<int> reap();
  /// Lets the program run on unwatched, if one is held. `reapForgotten` sees to its end.
  void forget() noexcept;

  /// Reaps the forgotten programs that have ended. Asks the kernel at most twice a second, however
  /// often it is called: with many connections that is thousands of times. Never blocks.
  static void reapForgotten() noexcept;

 private:
  // No element or one. A list, because its element can be handed to the list of the forgotten
  // without taking memory: forgetting must not fail.
  std::list<pid_t> pid_;
};

}  // namespace zell

#endif  // ZELL_LINUX_CHILD_PROCESS_H_
