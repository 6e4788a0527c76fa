// SPDX-License-Identifier: Apache-2.0
#include <runel/request.h>

#include <string_view>
#include <utility>

#include "client/core/late_content.h"
#include "client/core/reply_limit.h"
#include "protocol/record_reader.h"
#include "protocol/task_table.h"

namespace runel {
inline namespace v1 {
namespace {

// The daemon waits two seconds between the first and the second signal to a program.
constexpr std::chrono::seconds kKillTime{2};

}  // namespace

struct Request::Data {
  std::vector<std::string> words;
  std::optional<LateContent> late;  // the last argument, not among the words
  int execLimit = 0;
  std::optional<Milliseconds> extraTimeout = Milliseconds(0);
  std::size_t replyLimit = kSmallReply;
};

Request::Request(std::vector<std::string> words) : data_(std::make_unique<Data>()) {
  data_->words = std::move(words);
  const zell::TaskTraits* const traits =
      zell::findTask(data_->words.empty() ? "" : data_->words.front());
  data_->replyLimit = replyLimitOf(traits);
  if (traits != nullptr && traits->unbounded) {
    data_->extraTimeout.reset();
  }
}

Request::Request(std::vector<std::string> words, std::string content) : Request(std::move(words)) {
  data_->words.push_back(std::move(content));
}

Request Request::exec(std::vector<std::string> argv, int limit) {
  argv.insert(argv.begin(), "exec");
  Request made(std::move(argv));
  made.data_->execLimit = limit;
  if (limit < 0) {
    made.data_->extraTimeout = Milliseconds(0);
  } else if (limit > 0) {
    made.data_->extraTimeout = std::chrono::seconds(limit) + kKillTime;
  }
  return made;
}

Request::Request(const Request& other) : data_(std::make_unique<Data>(*other.data_)) {}

Request& Request::operator=(const Request& other) {
  if (this != &other) {
    data_ = std::make_unique<Data>(*other.data_);
  }
  return *this;
}

Request::Request(Request&& other) noexcept = default;
Request& Request::operator=(Request&& other) noexcept = default;
Request::~Request() = default;

Request& Request::setExtraTimeout(std::optional<Milliseconds> time) {
  data_->extraTimeout = time;
  return *this;
}

Request& Request::setReplyLimit(std::size_t bytes) {
  data_->replyLimit = bytes;
  return *this;
}

const std::vector<std::string>& Request::words() const {
  return data_->words;
}

int Request::execLimit() const {
  return data_->execLimit;
}

std::optional<Milliseconds> Request::extraTimeout() const {
  return data_->extraTimeout;
}

std::size_t Request::replyLimit() const {
  return data_->replyLimit;
}

bool Request::answered() const {
  const zell::TaskTraits* const traits =
      zell::findTask(data_->words.empty() ? "" : data_->words.front());
  return traits == nullptr || traits->text != zell::TaskText::noReply;
}

bool Request::repeatable() const {
  return !data_->words.empty() && runel::repeatable(data_->words.front());
}

std::string Request::encode() const {
  OutgoingPayload payload = LateRequest::payloadOf(*this);
  if (payload.content.size > 0) {
    std::string bytes;
    payload.content.read(0, payload.content.size, bytes);
    payload.head += bytes;
  }
  return payload.head + payload.tail;
}

Request LateRequest::with(std::vector<std::string> words, LateContent content) {
  Request made(std::move(words));
  made.data_->late = std::move(content);
  return made;
}

// A word may be a piece of a file: it is copied once, to memory that is obtained once.
OutgoingPayload LateRequest::payloadOf(const Request& request) {
  constexpr std::size_t kNumbers = 24;  // enough for a field of a number
  constexpr std::string_view kNoOutputNoStatus = " 0: 0 0 0 0 0";
  const Request::Data& data = *request.data_;
  const std::size_t late = data.late ? 1 : 0;
  std::size_t size = zell::kRecordName.size() + 4 * kNumbers;
  for (const std::string& word : data.words) {
    size += kNumbers + word.size();
  }
  OutgoingPayload payload;
  std::string& head = payload.head;
  head.reserve(size);
  head.append(zell::kRecordName).append(" ").append(std::to_string(data.words.size() + late));
  for (const std::string& word : data.words) {
    head.append(" ").append(std::to_string(word.size())).append(":").append(word);
  }
  if (data.late) {
    payload.content = *data.late;
    head.append(" ").append(std::to_string(payload.content.size)).append(":");
  }
  std::string& rest = data.late ? payload.tail : head;
  rest.append(" ").append(std::to_string(data.execLimit)).append(kNoOutputNoStatus);
  return payload;
}

bool repeatable(std::string_view name) {
  const zell::TaskTraits* const traits = zell::findTask(name);
  return traits != nullptr && traits->repeatable;
}

}  // namespace v1
}  // namespace runel
