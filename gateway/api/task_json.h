// SPDX-License-Identifier: Apache-2.0
// Tasks as JSON: what a client asks for, and what a device has answered.
#ifndef RUNELGW_API_TASK_JSON_H_
#define RUNELGW_API_TASK_JSON_H_

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <variant>

#include <runel/request.h>

#include "gateway/api/json_text.h"
#include "gateway/api/problem.h"
#include "gateway/core/outcome.h"
#include "gateway/core/payload.h"
#include "gateway/core/task_rules.h"

namespace runelgw {

/// A task that may be sent.
struct TaskWish {
  std::string task;
  TaskKind kind = TaskKind::look;
  std::string record;   ///< the text form of the request
  std::string summary;  ///< printable: the task and its arguments, without contents; bounded
  runel::Milliseconds deadline{0};
};

/// Reads {"task", "arguments", "content", "limit_s", "deadline_ms"}. @p pointer is the place of
/// @p json in the body. @p deadline is used without a chosen one, and an "exec" adds its limit.
[[nodiscard]] std::variant<TaskWish, ApiProblem> readTask(const Json& json,
                                                          const std::string& pointer,
                                                          runel::Milliseconds deadline);

/// What a device has answered.
struct TaskReply {
  int status = 0, state = 0, result = 0, number = 0, signal = 0;
  std::string output;            ///< at most as much as was asked for
  std::uint64_t outputSize = 0;  ///< of the whole output
};

/// Parses the record in @p payload, with at most @p limit bytes of its output. Without a value if
/// it is malformed or cannot be read.
[[nodiscard]] std::optional<TaskReply> parseReply(const Payload& payload, std::size_t limit);

/// The reply as JSON, null without one.
[[nodiscard]] Json jsonOf(const std::optional<TaskReply>& reply);
/// "answered", "not run", "unknown".
[[nodiscard]] const char* outcomeName(Outcome outcome);
/// The code of the reason; null for `Reason::none`.
[[nodiscard]] Json reasonJson(Reason reason);
/// {"device", "outcome", "reason", "text", "reply"}
[[nodiscard]] Json jsonOf(const std::string& device, const Answer& answer, std::size_t limit);

///@{
/// The numbers of a reply as one line, for the database.
[[nodiscard]] std::string numbersOf(const TaskReply& reply);
[[nodiscard]] std::optional<TaskReply> replyFromNumbers(const std::string& line);
///@}

}  // namespace runelgw

#endif  // RUNELGW_API_TASK_JSON_H_
