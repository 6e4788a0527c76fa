// SPDX-License-Identifier: Apache-2.0
#include "client/core/exclusive_task.h"

#include <cerrno>
#include <vector>

#include <zell/slave_task.h>

namespace runel {
namespace {

// The programs of transfers end by themselves. In seconds.
constexpr int kLongestProgram = 3600;

Error refusal(const std::string& what) {
  return {Kind::local, Cause::refused, what + ": other clients of the gateway use the device too",
          EOPNOTSUPP};
}

std::optional<Error> refuse(const std::vector<std::string>& words, int limit, bool needsLimit) {
  const std::string name = words.empty() ? "" : words.front();
  if (name == "kill" || name == "wait") {
    return refusal(name + " acts on the one background program of the device");
  }
  if (name == "exec" && limit < 0) {
    return refusal("exec in the background takes the one place for it on the device");
  }
  if (name == "exec" && limit == 0 && needsLimit) {
    return refusal("exec without a limit");
  }
  return std::nullopt;
}

}  // namespace

std::optional<Error> exclusiveTask(const Request& request) {
  return refuse(request.words(), request.execLimit(), false);
}

std::optional<Error> exclusiveTask(const std::string& payload) {
  zell::SlaveTask task;
  if (!zell::SlaveTask::isA(payload) || !task.parse(payload)) {
    return std::nullopt;
  }
  return refuse(task.args(), task.execParam(), true);
}

Request limited(const Request& request) {
  const std::vector<std::string>& words = request.words();
  if (words.empty() || words.front() != "exec" || request.execLimit() != 0) {
    return request;
  }
  Request same = Request::exec({words.begin() + 1, words.end()}, kLongestProgram);
  same.setReplyLimit(request.replyLimit());
  return same;
}

}  // namespace runel
