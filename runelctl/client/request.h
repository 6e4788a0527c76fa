// SPDX-License-Identifier: Apache-2.0
// One task to be run on a device, and the answer to it.
#ifndef ZELL_RUNELCTL_CLIENT_REQUEST_H_
#define ZELL_RUNELCTL_CLIENT_REQUEST_H_

#include <chrono>
#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include <zell/slave_status.h>

#include "client/error.h"

namespace zell::ctl {

/// The largest answer of a task that answers with little more than its status.
constexpr std::size_t kSmallReply = 65536;

struct Request {
  /// The task's name, then its arguments.
  std::vector<std::string> args;
  int execParam = 0;
  /// False for "restart": the device has nothing to say about it.
  bool answered = true;
  /// More than this is no answer but a fault of the device.
  std::size_t replyLimit = kSmallReply;
  /// How long the device may be silent beyond what it usually may, since the task itself takes its
  /// time. Without a value: as long as it wants.
  std::optional<std::chrono::milliseconds> extraPatience = std::chrono::milliseconds(0);
};

/// A request for the task @p args[0], with limits that fit that task.
[[nodiscard]] Request request(std::vector<std::string> args);

/// The same with @p content as the last argument; a long one is not copied.
[[nodiscard]] Request request(std::vector<std::string> args, std::string&& content);

/// An "exec" of @p argv; @p limit in seconds as the task takes it: 0 without limit, below 0 in the
/// background.
[[nodiscard]] Request execRequest(const std::vector<std::string>& argv, int limit);

/// Its text form, to be sent as one frame.
[[nodiscard]] std::string encode(const Request& request);

/// What came of a request: an answer, or no answer (`broken`).
struct Reply {
  std::optional<Error> broken;
  std::string output;
  ResultStatus status;

  [[nodiscard]] bool ok() const { return !broken && status.status == SlaveStatus::success; }
  /// The failure, told as @p what: the system's text.
  [[nodiscard]] Error error(const std::string& what) const;
  /// Exit status for it: what the program's would be in a shell, see the manual.
  [[nodiscard]] int exitStatus() const;
};

using ReplyHandler = std::function<void(Reply reply)>;

/// Reads an answer's text form, which it may use up. Nothing when it is malformed.
[[nodiscard]] std::optional<Reply> decodeReply(std::string&& payload);

/// The exit status that stands for @p error.
[[nodiscard]] int exitStatusOf(const Error& error);

constexpr int kExitTaskFailed = 1;
constexpr int kExitUsage = 2;
constexpr int kExitTimeLimit = 124;
constexpr int kExitCannotRun = 126;
constexpr int kExitNotThere = 127;
constexpr int kExitSignalBase = 128;
constexpr int kExitNoConnection = 255;

}  // namespace zell::ctl

#endif  // ZELL_RUNELCTL_CLIENT_REQUEST_H_
