// SPDX-License-Identifier: Apache-2.0
// A started program, from its start until it is reaped.
#ifndef ZELL_DEVICE_LINUX_CHILD_PROCESS_H_
#define ZELL_DEVICE_LINUX_CHILD_PROCESS_H_

#include <list>
#include <optional>
#include <string>
#include <vector>

#include <sys/types.h>

namespace zell {

/// Holds at most one program. Only this class reaps it, so its process id cannot be reused while it
/// is held, and signals always reach the right process.
class ChildProcess {
 public:
  ChildProcess() = default;
  ~ChildProcess() { forget(); }
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  /// Starts argv[0], searched in PATH when it contains no slash. The program gets a separate
  /// process group, default signal dispositions, an empty signal mask, /dev/null as standard input,
  /// @p output (borrowed) as standard output and error, and no other descriptor. Returns 0 or the
  /// errno value of the failed start. Must not be called while a program is held.
  [[nodiscard]] int start(const std::vector<std::string>& argv, int output);

  [[nodiscard]] bool held() const { return !pid_.empty(); }
  /// The process id. Valid only while a program is held.
  [[nodiscard]] pid_t pid() const { return pid_.front(); }
  /// Whether the program has ended. Does not reap it.
  [[nodiscard]] bool hasEnded() const;
  /// Sends @p signal to the program and its process group.
  void signal(int signal) const;
  /// Blocks until the program has ended and reaps it. Returns its wait status, or nothing when the
  /// system does not report one.
  std::optional<int> reap();
  /// Stops watching the program, if one is held, and lets it run. `reapForgotten` reaps it at its
  /// end.
  void forget() noexcept;

  /// Reaps the forgotten programs that have ended. Asks the kernel at most twice a second: with
  /// many connections it is called thousands of times a second. Never blocks.
  static void reapForgotten() noexcept;

 private:
  // Empty or one element. A list, because splicing its element into the list of forgotten programs
  // needs no memory: forgetting must not fail.
  std::list<pid_t> pid_;
};

}  // namespace zell

#endif  // ZELL_DEVICE_LINUX_CHILD_PROCESS_H_
