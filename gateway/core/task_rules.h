// SPDX-License-Identifier: Apache-2.0
// Which kind of work each task is, and which requests the gateway does not pass on.
#ifndef RUNELGW_CORE_TASK_RULES_H_
#define RUNELGW_CORE_TASK_RULES_H_

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace runelgw {

/// The kinds of task. A token is limited to some of them.
enum class TaskKind {
  look,   ///< asks for facts of the device and attributes of files, never for contents
  read,   ///< reads contents and lists directories
  write,  ///< changes files
  run,    ///< runs programs
  led,    ///< sets the LEDs
  state,  ///< stores a state of the update
  power,  ///< reboots the device or restarts the daemon
};

/// How many kinds there are.
inline constexpr std::size_t kTaskKinds = 7;

/// "look", "read"...
[[nodiscard]] const char* nameOf(TaskKind kind);
/// The kind that is called @p name.
[[nodiscard]] std::optional<TaskKind> findTaskKind(std::string_view name);
/// The kind of the task @p name. Without a value for an unknown task.
[[nodiscard]] std::optional<TaskKind> kindOf(std::string_view name);
/// Whether @p task changes something on the device. An unknown task is assumed to.
[[nodiscard]] bool changes(std::string_view task);

/// Why the gateway does not pass a request on.
struct TaskRefusal {
  std::string text;  ///< one sentence
  std::string hint;  ///< what to do instead
};

/// Without a value, the gateway passes @p task with the execution parameter @p execParam on.
/// Refused are: an unknown task; "kill", "wait" and an "exec" in the background, because all
/// callers share the one background program of the device's connection; an "exec" without a limit,
/// because it may occupy the device's queue for ever.
[[nodiscard]] std::optional<TaskRefusal> refusalOf(std::string_view task, int execParam);

/// What the rules must know of a request.
struct TaskSummary {
  std::string task;
  int execParam = 0;
};

/// Reads the task and the execution parameter of @p record, the text form of a request. Without a
/// value if it is malformed or names no task.
[[nodiscard]] std::optional<TaskSummary> summaryOf(std::string_view record);

}  // namespace runelgw

#endif  // RUNELGW_CORE_TASK_RULES_H_
