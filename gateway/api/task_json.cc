// SPDX-License-Identifier: Apache-2.0
#include "gateway/api/task_json.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <iterator>
#include <string_view>
#include <utility>
#include <vector>

#include "protocol/task_table.h"
#include "text/utf8.h"

namespace runelgw {
namespace {

constexpr std::size_t kMostArguments = 1000;
constexpr std::int64_t kMostSeconds = 86400;
constexpr std::size_t kSummary = 200;
// The fields of a reply before and after its output fit into it.
constexpr std::size_t kFields = 128;

constexpr const char* kStatusNames[] = {"success", "failure", "running", "timeout", "error"};
constexpr const char* kStateNames[] = {"none", "running", "exited", "signalled", "timed out"};

bool takesContent(std::string_view task) {
  return task == "write" || task == "append";
}

std::string summaryText(const std::string& task, const std::vector<std::string>& arguments) {
  std::string text = task;
  for (const std::string& argument : arguments) {
    text += " " + printable(argument);
    if (text.size() > kSummary) {
      // Escapes are ASCII, and a cut sequence would be escaped when it is shown.
      std::size_t end = kSummary;
      while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xC0U) == 0x80U) {
        --end;
      }
      return text.substr(0, end) + "...";
    }
  }
  return text;
}

ApiProblem wrong(const Fields& fields) {
  return {ProblemType::malformedRequest, fields.error(), "", fields.pointer()};
}

// Parses a number at the front of @p text and removes it with the blank before it.
template <typename Number>
bool takeNumber(std::string_view& text, Number& number) {
  if (text.empty() || text[0] != ' ') {
    return false;
  }
  const auto end = std::from_chars(text.data() + 1, text.data() + text.size(), number);
  if (end.ec != std::errc()) {
    return false;
  }
  text.remove_prefix(static_cast<std::size_t>(end.ptr - text.data()));
  return true;
}

// The position and the length of the output.
struct OutputPlace {
  std::uint64_t offset = 0;
  std::uint64_t size = 0;
};

std::optional<OutputPlace> findOutput(const Payload& payload) {
  std::string head;
  constexpr std::string_view kName = "SlaveTask";
  if (!payload.read(0, kFields, head) || head.compare(0, kName.size(), kName) != 0) {
    return std::nullopt;
  }
  std::string_view rest = std::string_view(head).substr(kName.size());
  int arguments = 0;
  int execParam = 0;
  OutputPlace place;
  if (!takeNumber(rest, arguments) || arguments != 0 || !takeNumber(rest, execParam) ||
      !takeNumber(rest, place.size) || rest.empty() || rest[0] != ':') {
    return std::nullopt;
  }
  place.offset = head.size() - rest.size() + 1;
  if (place.offset > payload.size() || place.size > payload.size() - place.offset) {
    return std::nullopt;
  }
  return place;
}

bool readNumbers(std::string_view text, TaskReply& reply) {
  return takeNumber(text, reply.status) && takeNumber(text, reply.state) &&
         takeNumber(text, reply.result) && takeNumber(text, reply.number) &&
         takeNumber(text, reply.signal) && text.empty();
}

// Removes a cut sequence from the end of a text that is UTF-8 otherwise.
void trimCutSequence(std::string& text) {
  for (std::size_t cut = 0; cut < 4 && cut < text.size(); ++cut) {
    if (zell::isUtf8(std::string_view(text).substr(0, text.size() - cut))) {
      text.resize(text.size() - cut);
      return;
    }
  }
}

template <std::size_t kCount>
const char* nameAt(const char* const (&names)[kCount], int number) {
  return number >= 0 && static_cast<std::size_t>(number) < kCount ? names[number] : "other";
}

// Checks the arguments and fills in the record.
std::optional<ApiProblem> encode(TaskWish& wish, Fields& fields,
                                 std::vector<std::string> arguments) {
  const zell::TaskTraits* const row = zell::findTask(wish.task);
  const bool content = fields.has("content");
  if (content && !takesContent(wish.task)) {
    fields.fail("content", "is only for \"write\" and \"append\"");
  }
  if (wish.task == "exec" && arguments.empty()) {
    fields.fail("arguments", "must begin with the program");
  } else if (arguments.size() + (content ? 1 : 0) < row->arguments) {
    fields.fail("arguments", "must have " + std::to_string(row->arguments) + " items for \"" +
                                 wish.task + "\", its content included");
  }
  std::string data = fields.bytes("content", "");
  const int limit = static_cast<int>(fields.number("limit_s", 1, kMostSeconds, 0));
  if (!fields.ok()) {
    return wrong(fields);
  }
  if (wish.task == "exec") {
    wish.record = runel::Request::exec(std::move(arguments), limit).encode();
    return std::nullopt;
  }
  arguments.insert(arguments.begin(), wish.task);
  wish.record = content ? runel::Request(std::move(arguments), std::move(data)).encode()
                        : runel::Request(std::move(arguments)).encode();
  return std::nullopt;
}

}  // namespace

std::variant<TaskWish, ApiProblem> readTask(const Json& json, const std::string& pointer,
                                            runel::Milliseconds deadline) {
  Fields fields(json, {"task", "arguments", "content", "limit_s", "deadline_ms"}, pointer);
  TaskWish wish;
  wish.task = fields.text("task", 64);
  std::vector<std::string> arguments = fields.byteList("arguments", kMostArguments);
  const std::int64_t limit = fields.number("limit_s", 1, kMostSeconds, 0);
  if (limit != 0 && wish.task != "exec") {
    fields.fail("limit_s", "is only for \"exec\"");
  }
  const std::int64_t chosen =
      fields.number("deadline_ms", 1, kMostSeconds * 1000, deadline.count() + limit * 1000);
  if (!fields.ok()) {
    return wrong(fields);
  }
  wish.deadline = runel::Milliseconds(chosen);
  const std::optional<TaskRefusal> refusal = refusalOf(wish.task, static_cast<int>(limit));
  if (refusal) {
    return ApiProblem{ProblemType::refusedTask, refusal->text, refusal->hint, pointer + "/task"};
  }
  wish.kind = *kindOf(wish.task);
  wish.summary = summaryText(wish.task, arguments);
  if (std::optional<ApiProblem> problem = encode(wish, fields, std::move(arguments))) {
    return std::move(*problem);
  }
  return wish;
}

std::optional<TaskReply> parseReply(const Payload& payload, std::size_t limit) {
  const std::optional<OutputPlace> place = findOutput(payload);
  if (!place) {
    return std::nullopt;
  }
  TaskReply reply;
  reply.outputSize = place->size;
  const std::uint64_t behind = place->offset + place->size;
  std::string tail;
  const std::size_t wanted = static_cast<std::size_t>(std::min<std::uint64_t>(place->size, limit));
  if (payload.size() - behind > kFields || !payload.read(behind, kFields, tail) ||
      !readNumbers(tail, reply) || !payload.read(place->offset, wanted, reply.output) ||
      reply.output.size() != wanted) {
    return std::nullopt;
  }
  if (reply.output.size() < reply.outputSize) {
    trimCutSequence(reply.output);
  }
  return reply;
}

Json jsonOf(const std::optional<TaskReply>& reply) {
  if (!reply) {
    return nullptr;
  }
  return {{"status", nameAt(kStatusNames, reply->status)},
          {"state", nameAt(kStateNames, reply->state)},
          {"result", reply->result},
          {"errno", reply->number},
          {"signal", reply->signal},
          {"output", bytesOf(reply->output)},
          {"output_bytes", reply->outputSize},
          {"truncated", reply->output.size() < reply->outputSize}};
}

const char* outcomeName(Outcome outcome) {
  switch (outcome) {
    case Outcome::answered:
      return "answered";
    case Outcome::notRun:
      return "not run";
    case Outcome::unknown:
      return "unknown";
  }
  return "unknown";
}

Json reasonJson(Reason reason) {
  return reason == Reason::none ? Json(nullptr) : Json(codeOf(reason));
}

Json jsonOf(const std::string& device, const Answer& answer, std::size_t limit) {
  Json json = {{"device", device},
               {"outcome", outcomeName(answer.outcome)},
               {"reason", reasonJson(answer.reason)},
               {"text", printable(answer.text)},
               {"reply", nullptr}};
  if (answer.outcome == Outcome::answered) {
    json["reply"] = jsonOf(parseReply(answer.payload, limit));
  }
  return json;
}

std::string numbersOf(const TaskReply& reply) {
  std::string line;
  for (const int number : {reply.status, reply.state, reply.result, reply.number, reply.signal}) {
    line += " " + std::to_string(number);
  }
  return line + " " + std::to_string(reply.outputSize);
}

std::optional<TaskReply> replyFromNumbers(const std::string& line) {
  TaskReply reply;
  const std::size_t last = line.rfind(' ');
  if (last == std::string::npos) {
    return std::nullopt;
  }
  std::string_view size = std::string_view(line).substr(last);
  if (!readNumbers(std::string_view(line).substr(0, last), reply) ||
      !takeNumber(size, reply.outputSize) || !size.empty()) {
    return std::nullopt;
  }
  return reply;
}

}  // namespace runelgw
