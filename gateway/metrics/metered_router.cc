// SPDX-License-Identifier: Apache-2.0
#include "gateway/metrics/metered_router.h"

#include <chrono>
#include <string>
#include <utility>

#include "protocol/record_reader.h"
#include "protocol/task_table.h"

namespace runelgw {
namespace {

// No name of a task is longer than this with its count and length.
constexpr std::size_t kHead = 64;

// The name of the task in the table; nothing for another one. The table outlives the call.
std::string_view taskOf(const Payload& request) {
  std::string head;
  if (request.isInMemory()) {
    head = request.bytes().substr(0, kHead);
  } else if (!request.read(0, kHead, head)) {
    return {};
  }
  zell::RecordReader reader(head);
  std::int32_t count = 0;
  std::string_view name;
  if (!reader.readName() || !reader.readNumber(count) || !reader.readString(name)) {
    return {};
  }
  const zell::TaskTraits* const row = zell::findTask(name);
  return row == nullptr ? std::string_view() : row->name;
}

}  // namespace

CallId MeteredRouter::send(Call call, Done done) {
  const std::string_view task = taskOf(call.request);
  const runel::Clock::time_point start = now_();
  return router_.send(std::move(call), [this, task, start, done = std::move(done)](Answer answer) {
    const double seconds = std::chrono::duration<double>(now_() - start).count();
    metrics_.requestEnded(task, answer.outcome, answer.reason, seconds);
    done(std::move(answer));
  });
}

}  // namespace runelgw
