// SPDX-License-Identifier: Apache-2.0
#include "gateway/link/request_head.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "protocol/record_reader.h"
#include "protocol/task_table.h"

namespace runelgw {
namespace {

constexpr std::size_t kBeginning = 256;
constexpr std::size_t kLongestName = 64;
constexpr std::size_t kLongestExec = 4194304;
// The device waits two seconds between the first and the second signal to a program.
constexpr std::chrono::seconds kKillTime{2};

// The limit of an "exec" in seconds. Without a value if the record is malformed: then the device
// only refuses it.
std::optional<std::int32_t> execLimit(std::string_view record) {
  zell::RecordReader reader(record);
  std::int32_t count = 0;
  std::int32_t limit = 0;
  std::string_view argument;
  if (!reader.readName() || !reader.readNumber(count)) {
    return std::nullopt;
  }
  for (std::int32_t i = 0; i < count; ++i) {
    if (!reader.readString(argument)) {
      return std::nullopt;
    }
  }
  return reader.readSigned(limit) ? std::optional(limit) : std::nullopt;
}

std::optional<runel::Milliseconds> extraTimeOf(const Payload& request) {
  std::string record;
  if (request.size() > kLongestExec || !request.read(0, kLongestExec, record)) {
    return runel::Milliseconds(0);
  }
  const std::optional<std::int32_t> limit = execLimit(record);
  if (limit == 0) {
    return std::nullopt;
  }
  return limit.value_or(-1) < 0 ? runel::Milliseconds(0)
                                : runel::Milliseconds(std::chrono::seconds(*limit) + kKillTime);
}

}  // namespace

RequestHead headOf(const Payload& request) {
  RequestHead head;
  std::string beginning;
  (void)request.read(0, kBeginning, beginning);  // a failure leaves a payload that is not a record
  zell::RecordReader reader(beginning);
  head.isRecord = reader.readName() && beginning.size() > zell::kRecordName.size() &&
                  beginning[zell::kRecordName.size()] == ' ';
  std::int32_t count = 0;
  std::string_view name;
  if (!head.isRecord || !reader.readNumber(count) || count == 0 || !reader.readString(name) ||
      name.size() > kLongestName) {
    return head;
  }
  head.task = name;
  const zell::TaskTraits* const traits = zell::findTask(name);
  if (traits == nullptr) {
    return head;
  }
  head.known = true;
  head.repeatable = traits->repeatable;
  head.answered = traits->text != zell::TaskText::noReply;
  if (name == "exec") {
    head.extraTime = extraTimeOf(request);
  } else if (traits->unbounded) {
    head.extraTime.reset();
  }
  return head;
}

}  // namespace runelgw
