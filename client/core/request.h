// SPDX-License-Identifier: Apache-2.0
// A task request to a device, and the reply.
#ifndef RUNEL_CORE_REQUEST_H_
#define RUNEL_CORE_REQUEST_H_

#include <chrono>
#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include <zell/slave_status.h>

#include "client/core/error.h"

namespace runel {

/// The size limit of the answer of a task that returns little more than its status.
constexpr std::size_t kSmallReply = 65536;

struct Request {
  /// The name of the task and its arguments.
  std::vector<std::string> args;
  int execParam = 0;
  /// False for "restart", which has no answer.
  bool answered = true;
  /// A larger answer is a protocol error.
  std::size_t replyLimit = kSmallReply;
  /// Time added to the I/O timeout for the run time of the task. Without a value there is no
  /// timeout.
  std::optional<std::chrono::milliseconds> extraTimeout = std::chrono::milliseconds(0);
};

/// A request for the task @p args[0], with the limits of that task.
[[nodiscard]] Request request(std::vector<std::string> args);

/// A request with @p content as its last argument, which is moved and not copied.
[[nodiscard]] Request request(std::vector<std::string> args, std::string&& content);

/// An "exec" of @p argv. @p limit is in seconds: 0 for no limit, negative for the background.
[[nodiscard]] Request execRequest(const std::vector<std::string>& argv, int limit);

/// The text form of @p request, the payload of one frame.
[[nodiscard]] std::string encode(const Request& request);

/// The result of a request: an answer, or an error (`broken`).
struct Reply {
  std::optional<Error> broken;
  std::string output;
  zell::ResultStatus status;

  [[nodiscard]] bool ok() const { return !broken && status.status == zell::SlaveStatus::success; }
  /// The failure as an error with the text "@p what: ...".
  [[nodiscard]] Error error(const std::string& what) const;
  /// The exit status, as a shell would report it; see the manual.
  [[nodiscard]] int exitStatus() const;
};

using ReplyHandler = std::function<void(Reply reply)>;

/// Parses the text form of an answer, which may be moved from. Empty for malformed text.
[[nodiscard]] std::optional<Reply> decodeReply(std::string&& payload);

/// The exit status for @p error.
[[nodiscard]] int exitStatusOf(const Error& error);

constexpr int kExitTaskFailed = 1;
constexpr int kExitUsage = 2;
constexpr int kExitTimeLimit = 124;
constexpr int kExitCannotRun = 126;
constexpr int kExitNotThere = 127;
constexpr int kExitSignalBase = 128;
constexpr int kExitNoConnection = 255;

}  // namespace runel

#endif  // RUNEL_CORE_REQUEST_H_
