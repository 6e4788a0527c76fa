// SPDX-License-Identifier: Apache-2.0
#include "client/core/request.h"

#include <algorithm>
#include <cerrno>
#include <string_view>
#include <utility>

#include <sys/wait.h>

#include <zell/slave_task.h>

#include "protocol/protocol.h"
#include "protocol/task_table.h"

namespace runel {
namespace {

// The daemon waits two seconds between the first and the second signal to a program.
constexpr std::chrono::seconds kKillTime{2};

// Describes how a program ended.
std::string programText(const zell::ResultStatus& status) {
  if (status.status == zell::SlaveStatus::timeout) {
    return "exceeded its time limit";
  }
  if (status.state == zell::WatchProcessState_t::signalled) {
    return "terminated by signal " + std::to_string(status.signal);
  }
  return "exit status " + std::to_string(status.result);
}

bool aboutProgram(const zell::ResultStatus& status) {
  return status.state != zell::WatchProcessState_t::none;
}

std::string taskHint(int number) {
  switch (number) {
    case ENOSPC:
      return "the device's file system is full: check with runelctl df";
    case EROFS:
      return "the device's file system is mounted read-only";
    case EFBIG:
      return "too large for one answer: use runelctl pull";
    default:
      return "";
  }
}

}  // namespace

Request request(std::vector<std::string> args) {
  Request made;
  const std::string task = args.empty() ? "" : args[0];
  made.args = std::move(args);
  const zell::TaskTraits* const traits = zell::findTask(task);
  if (traits == nullptr) {
    return made;
  }
  made.answered = traits->text != zell::TaskText::noReply;
  if (zell::isLong(traits->text)) {
    made.replyLimit = zell::kMaxFramePayload;
  }
  if (traits->unbounded) {
    made.extraTimeout.reset();
  }
  return made;
}

Request request(std::vector<std::string> args, std::string&& content) {
  Request made = request(std::move(args));
  made.args.push_back(std::move(content));
  return made;
}

Request execRequest(const std::vector<std::string>& argv, int limit) {
  std::vector<std::string> args{"exec"};
  args.insert(args.end(), argv.begin(), argv.end());
  Request made = request(std::move(args));
  made.execParam = limit;
  if (limit < 0) {
    made.extraTimeout = std::chrono::seconds(0);
  } else if (limit > 0) {
    made.extraTimeout = std::chrono::seconds(limit) + kKillTime;
  }
  return made;
}

std::string encode(const Request& request) {
  const zell::SlaveTask record(request.args, request.execParam, "", zell::SlaveStatus::success,
                               zell::WatchProcessState_t::none, 0, 0, 0);
  zell::SlaveTask::Parts parts = record.parts();
  parts.head.append(parts.output).append(parts.tail);
  return std::move(parts.head);
}

std::optional<Reply> decodeReply(std::string&& payload) {
  zell::SlaveTask record;
  if (!zell::SlaveTask::isA(payload) || !record.parse(payload)) {
    return std::nullopt;
  }
  std::string().swap(payload);
  return Reply{std::nullopt, record.output(), record.status()};
}

Error Reply::error(const std::string& what) const {
  if (broken) {
    return *broken;
  }
  const std::string about = what.empty() ? "" : what + ": ";
  if (status.status == zell::SlaveStatus::error) {
    return {Fault::task, about + "the device refused the task: " + output, "", status.error};
  }
  if (aboutProgram(status)) {
    return {Fault::program, about + programText(status), "", status.error};
  }
  return {Fault::task, about + systemText(status.error), taskHint(status.error), status.error};
}

int Reply::exitStatus() const {
  if (broken) {
    return exitStatusOf(*broken);
  }
  if (status.status == zell::SlaveStatus::success || status.status == zell::SlaveStatus::running) {
    return 0;
  }
  if (status.status == zell::SlaveStatus::timeout) {
    return kExitTimeLimit;
  }
  if (status.state == zell::WatchProcessState_t::signalled) {
    return kExitSignalBase + (status.signal & 127);
  }
  if (status.state == zell::WatchProcessState_t::exited) {
    return WEXITSTATUS(static_cast<unsigned>(status.result) << 8U);
  }
  return kExitTaskFailed;
}

int exitStatusOf(const Error& error) {
  return std::string_view(error.where()) == "link" ? kExitNoConnection : kExitTaskFailed;
}

}  // namespace runel
