// SPDX-License-Identifier: Apache-2.0
// The tasks of the protocol: what daemon, client library and runelctl must know of each.
#ifndef ZELL_PROTOCOL_TASK_TABLE_H_
#define ZELL_PROTOCOL_TASK_TABLE_H_

#include <cstddef>
#include <iterator>
#include <string_view>

namespace zell {

/// What the text of a successful reply is.
enum class TaskText {
  noReply,  ///< the task sends no reply at all
  empty,    ///< the status is the whole answer
  value,    ///< one short value
  stat,     ///< one line of a file's attributes
  names,    ///< a list of names, of any length
  tree,     ///< one line for each entry of a directory tree, of any length
  content,  ///< bytes, of any length
  output,   ///< the output of a program, at most kMaxProgramOutput bytes
};

/// One task.
struct TaskTraits {
  std::string_view name;
  /// Fewest arguments besides the name. "exec" has 0: the device refuses an empty program itself.
  std::size_t arguments;
  TaskText text;
  /// May take any time: a client sets no timeout unless the request has a limit.
  bool unbounded;
  /// Changes something on the device.
  bool changes;
  /// Safe to send again when the outcome of the first request is unknown. True for a task that
  /// changes nothing, or that sets a state which is the same after two requests.
  bool repeatable;
};

/// In alphabetical order of the names.
inline constexpr TaskTraits kTasks[] = {
    // name             arguments  text        unbounded  changes  repeatable
    {"access", 2, TaskText::empty, false, false, true},
    {"append", 2, TaskText::empty, false, true, false},
    {"blinkleds", 1, TaskText::empty, false, true, true},
    {"changeleds", 2, TaskText::empty, false, true, true},
    {"chmodx", 1, TaskText::empty, false, true, true},
    {"devicetype", 0, TaskText::value, false, false, true},
    {"exec", 0, TaskText::output, true, true, false},
    {"fileexists", 1, TaskText::empty, false, false, true},
    {"freeblocks", 1, TaskText::value, false, false, true},
    {"hostid", 0, TaskText::value, false, false, true},
    {"kill", 0, TaskText::empty, false, true, false},
    {"lstat", 1, TaskText::stat, false, false, true},
    {"processrunning", 1, TaskText::empty, false, false, true},
    {"read", 1, TaskText::content, false, false, true},
    {"readdir", 1, TaskText::names, false, false, true},
    {"realpath", 1, TaskText::value, false, false, true},
    {"reboot", 0, TaskText::empty, false, true, false},
    {"rename", 2, TaskText::empty, false, true, false},
    {"restart", 0, TaskText::noReply, false, true, false},
    {"stat", 1, TaskText::stat, false, false, true},
    {"unlink", 1, TaskText::empty, false, true, false},
    {"updateumstate", 2, TaskText::empty, false, true, true},
    {"wait", 0, TaskText::empty, true, false, false},
    {"walktree", 1, TaskText::tree, false, false, true},
    {"write", 2, TaskText::empty, false, true, true},
};

/// The row of the task @p name; null for an unknown task.
constexpr const TaskTraits* findTask(std::string_view name) {
  const TaskTraits* low = std::begin(kTasks);
  const TaskTraits* high = std::end(kTasks);
  while (low != high) {
    const TaskTraits* const middle = low + (high - low) / 2;
    if (middle->name == name) {
      return middle;
    }
    (middle->name < name ? low : high) = middle->name < name ? middle + 1 : middle;
  }
  return nullptr;
}

/// Whether the text of the task's reply may be long.
constexpr bool isLong(TaskText text) {
  return text == TaskText::content || text == TaskText::names || text == TaskText::tree ||
         text == TaskText::output;
}

namespace detail {

constexpr bool tasksAreSorted() {
  for (const TaskTraits* row = std::begin(kTasks) + 1; row != std::end(kTasks); ++row) {
    if (!(row[-1].name < row->name)) {
      return false;
    }
  }
  return true;
}

}  // namespace detail

static_assert(detail::tasksAreSorted(), "findTask needs the names in alphabetical order");

}  // namespace zell

#endif  // ZELL_PROTOCOL_TASK_TABLE_H_
