// SPDX-License-Identifier: Apache-2.0
#include "gateway/core/task_rules.h"

#include <cstdint>
#include <iterator>

#include "protocol/record_reader.h"
#include "protocol/task_table.h"

namespace runelgw {
namespace {

struct KindRow {
  std::string_view task;
  TaskKind kind;
};

// In the order of the table of tasks, which the assertion below compares.
constexpr KindRow kKinds[] = {
    {"access", TaskKind::look},
    {"append", TaskKind::write},
    {"blinkleds", TaskKind::led},
    {"changeleds", TaskKind::led},
    {"chmodx", TaskKind::write},
    {"devicetype", TaskKind::look},
    {"exec", TaskKind::run},
    {"fileexists", TaskKind::look},
    {"freeblocks", TaskKind::look},
    {"hostid", TaskKind::look},
    {"kill", TaskKind::run},
    {"lstat", TaskKind::look},
    {"processrunning", TaskKind::look},
    {"read", TaskKind::read},
    {"readdir", TaskKind::read},
    {"realpath", TaskKind::look},
    {"reboot", TaskKind::power},
    {"rename", TaskKind::write},
    {"restart", TaskKind::power},
    {"stat", TaskKind::look},
    {"unlink", TaskKind::write},
    {"updateumstate", TaskKind::state},
    {"wait", TaskKind::run},
    {"walktree", TaskKind::read},
    {"write", TaskKind::write},
};

constexpr bool kindsFollowTheTable() {
  if (std::size(kKinds) != std::size(zell::kTasks)) {
    return false;
  }
  for (std::size_t row = 0; row < std::size(kKinds); ++row) {
    if (kKinds[row].task != zell::kTasks[row].name) {
      return false;
    }
  }
  return true;
}

static_assert(kindsFollowTheTable(), "each task has one kind, in the order of the table of tasks");

constexpr std::string_view kNames[kTaskKinds] = {"look", "read",  "write", "run",
                                                 "led",  "state", "power"};

constexpr const char* kJobHint =
    "start a job with a foreground \"exec\" instead; it runs without a connection";

}  // namespace

const char* nameOf(TaskKind kind) {
  return kNames[static_cast<std::size_t>(kind)].data();
}

std::optional<TaskKind> findTaskKind(std::string_view name) {
  for (std::size_t kind = 0; kind < kTaskKinds; ++kind) {
    if (kNames[kind] == name) {
      return static_cast<TaskKind>(kind);
    }
  }
  return std::nullopt;
}

std::optional<TaskKind> kindOf(std::string_view name) {
  const zell::TaskTraits* const row = zell::findTask(name);
  if (row == nullptr) {
    return std::nullopt;
  }
  return kKinds[row - std::begin(zell::kTasks)].kind;
}

bool changes(std::string_view task) {
  const zell::TaskTraits* const row = zell::findTask(task);
  return row == nullptr || row->changes;
}

std::optional<TaskRefusal> refusalOf(std::string_view task, int execParam) {
  if (zell::findTask(task) == nullptr) {
    return TaskRefusal{"the gateway does not know this task", ""};
  }
  if (task == "kill" || task == "wait") {
    return TaskRefusal{"\"" + std::string(task) +
                           "\" is refused, because all callers share the background program of a "
                           "device",
                       kJobHint};
  }
  if (task == "exec" && execParam < 0) {
    return TaskRefusal{
        "\"exec\" in the background is refused, because all callers share the background program "
        "of a device",
        kJobHint};
  }
  if (task == "exec" && execParam == 0) {
    return TaskRefusal{
        "\"exec\" without a limit is refused, because it may occupy the device for ever",
        "give a limit in seconds, or start a job"};
  }
  return std::nullopt;
}

std::optional<TaskSummary> summaryOf(std::string_view record) {
  zell::RecordReader reader(record);
  std::int32_t count = 0;
  if (!reader.readName() || !reader.readNumber(count) || count < 1) {
    return std::nullopt;
  }
  TaskSummary summary;
  std::string_view word;
  for (std::int32_t at = 0; at < count; ++at) {
    if (!reader.readString(word)) {
      return std::nullopt;
    }
    if (at == 0) {
      summary.task.assign(word);
    }
  }
  if (!reader.readSigned(summary.execParam)) {
    return std::nullopt;
  }
  return summary;
}

}  // namespace runelgw
