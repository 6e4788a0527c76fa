// SPDX-License-Identifier: Apache-2.0
#include "gateway/attach/attach_channel.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>
#include <vector>

#include "gateway/attach/attach_text.h"
#include "gateway/core/task_rules.h"
#include "protocol/record_reader.h"

namespace runelgw {
namespace {

constexpr std::uint64_t kMostCredit = std::uint64_t{1} << 40U;
constexpr std::size_t kMessageBytes = 65536;
constexpr std::size_t kMessageParts = 16;
// So many requests are held at the same time; further bytes wait for credit.
constexpr std::size_t kMostWaiting = 64;
constexpr std::size_t kMostWaitingBytes = 524288;
constexpr std::size_t kMostTogether = 8;
// What a request of this many bytes adds to its deadline: one second.
constexpr std::uint64_t kBytesOfSecond = 65536;
// The device waits two seconds between the first and the second signal to a program.
constexpr std::chrono::seconds kKillTime{2};
constexpr std::size_t kBeginning = 256;
// A longer "exec" fails on every device.
constexpr std::uint64_t kLongestExec = 4194304;
constexpr std::size_t kShortAnswer = 16384;
constexpr std::size_t kLongestTaskName = 64;

bool endsTheChannel(const Answer& answer) {
  return answer.outcome != Outcome::answered && answer.reason != Reason::denied &&
         answer.reason != Reason::refused;
}

Answer notRun(Reason reason, std::string text) {
  return {Outcome::notRun, reason, std::move(text), {}};
}

// The name of the task of a record that is too long to be in memory.
std::optional<TaskSummary> summaryOfLong(const Payload& payload) {
  std::string record;
  if (!payload.read(0, kBeginning, record)) {
    return std::nullopt;
  }
  zell::RecordReader reader(record);
  std::int32_t count = 0;
  std::string_view task;
  if (!reader.readName() || !reader.readNumber(count) || count < 1 || !reader.readString(task)) {
    return std::nullopt;
  }
  if (task != "exec") {  // no other task has an execution parameter
    return TaskSummary{std::string(task), 0};
  }
  if (payload.size() > kLongestExec || !payload.read(0, kLongestExec, record)) {
    return std::nullopt;
  }
  return summaryOf(record);
}

std::string channelBytes(std::uint32_t channel) {
  std::string bytes;
  for (int shift = 24; shift >= 0; shift -= 8) {
    bytes += static_cast<char>(channel >> static_cast<unsigned>(shift) & 255U);
  }
  return bytes;
}

std::size_t memoryOf(const Payload& payload) {
  return payload.isInMemory() ? static_cast<std::size_t>(payload.size()) : 0;
}

}  // namespace

// Puts a long request into the spool. Without room, its bytes are discarded.
class AttachChannel::Store : public runel::PayloadStore {
 public:
  Store(AttachChannel& channel, std::size_t length) : channel_(channel) {
    auto begun = channel.host_.parts().spool->begin(length);
    if (begun) {
      writer_ = *std::move(begun);
    } else {
      channel_.storeProblem_ = begun.error().text();
    }
  }

  void add(std::string_view bytes) override {
    if (writer_ && !writer_->add(bytes)) {
      channel_.storeProblem_ = std::strerror(errno);
      writer_.reset();
    }
  }
  // The payload stays where it is.
  [[nodiscard]] std::optional<std::string> take() override {
    channel_.stored_ = writer_ ? writer_->finish() : Payload();
    return std::string();
  }

 private:
  AttachChannel& channel_;
  std::unique_ptr<PayloadWriter> writer_;
};

AttachChannel::AttachChannel(AttachHost& host, std::uint32_t number, DeviceId device,
                             runel::Milliseconds deadline)
    : host_(host),
      number_(number),
      device_(device),
      deadline_(deadline),
      allowed_(kFirstCredit),
      credit_(kFirstCredit) {
  stream_.keepLongPayloads(
      [this](std::size_t length) { return std::make_unique<Store>(*this, length); },
      host.settings().memoryBytes);
}

AttachChannel::~AttachChannel() {
  for (Request& request : requests_) {
    drop(request, "the client has ended the channel");
  }
  for (const Out& out : out_) {
    if (const auto* payload = std::get_if<Payload>(&out)) {
      host_.answerBytes() -= memoryOf(*payload);
    }
  }
  host_.answerBytes() -= streamBytes_;
}

// Requests.

bool AttachChannel::receive(std::string_view bytes) {
  if (bytes.size() > allowed_) {
    return false;
  }
  if (ended_) {
    return true;
  }
  allowed_ -= bytes.size();
  taken_ += bytes.size();
  stream_.receive(std::string(bytes));
  read();
  return true;
}

void AttachChannel::read() {
  while (!ended_ && requests_.size() < kMostWaiting) {
    auto payload = stream_.nextPayload();
    if (!payload) {
      break;
    }
    add(stored_ ? *std::exchange(stored_, std::nullopt) : Payload(*std::move(payload)));
  }
  const auto error = stream_.error();
  if (error && !ended_) {
    end("the client violates the protocol of frames: " + error->text());
  }
  grant();
}

void AttachChannel::add(Payload payload) {
  Request& request = requests_.emplace_back();
  request.id = ++lastRequest_;
  if (!storeProblem_.empty()) {
    request.end = notRun(Reason::storage, "the gateway cannot hold the request: " +
                                              std::exchange(storeProblem_, ""));
  } else {
    examine(request, payload);
  }
  if (request.end) {
    host_.permit().record(request.task, device_, *request.end);
  } else {
    request.bytes = memoryOf(payload);
    requestBytes_ += request.bytes;
    request.extraTime += runel::Milliseconds(std::chrono::seconds(payload.size() / kBytesOfSecond));
    request.payload = std::move(payload);
  }
  settle();
}

// Sets the end of a request that must not be passed on.
void AttachChannel::examine(Request& request, const Payload& payload) const {
  const auto summary = payload.isInMemory() ? summaryOf(payload.bytes()) : summaryOfLong(payload);
  if (!summary) {
    request.end = notRun(Reason::refused, "the request is malformed or too long");
    return;
  }
  request.task = summary->task.substr(0, kLongestTaskName);
  request.changes = changes(summary->task);
  if (const auto refusal = refusalOf(summary->task, summary->execParam)) {
    request.end = notRun(Reason::refused,
                         refusal->text + (refusal->hint.empty() ? "" : ": " + refusal->hint));
    return;
  }
  if (!host_.permit().may(*kindOf(summary->task), device_)) {
    request.end = notRun(Reason::denied, "this client may not run \"" + request.task + "\" here");
    return;
  }
  if (summary->execParam > 0) {
    request.extraTime = std::chrono::seconds(summary->execParam) + kKillTime;
  }
}

void AttachChannel::resume() {
  pass();
  read();
}

void AttachChannel::pass() {
  std::size_t pending = 0;
  for (Request& request : requests_) {
    if (request.end) {
      continue;
    }
    if (request.call == 0) {
      if (pending == kMostTogether || (pending > 0 && request.changes)) {
        return;
      }
      if (host_.answerBytes() > host_.settings().answerBytes) {
        host_.hold(number_);
        return;
      }
      passOne(request);
    }
    ++pending;
    if (request.changes) {
      return;
    }
  }
}

void AttachChannel::passOne(Request& request) {
  Call call;
  call.device = device_;
  call.request = std::exchange(request.payload, Payload());
  call.deadline = runel::Clock::now() + deadline_ + request.extraTime;
  call.deadlineWaits = true;
  call.label = host_.permit().label();
  request.call = host_.parts().router.send(std::move(call), host_.answerTo(number_, request.id));
}

void AttachChannel::answered(std::uint64_t id, Answer answer) {
  const auto request = std::find_if(requests_.begin(), requests_.end(),
                                    [id](const Request& one) { return one.id == id; });
  if (request == requests_.end()) {
    return;
  }
  host_.permit().record(request->task, device_, answer);
  host_.answerBytes() += memoryOf(answer.payload);
  request->end = std::move(answer);
  settle();
  read();
}

// Tells the ends of the oldest requests.
void AttachChannel::settle() {
  while (!ended_ && !requests_.empty() && requests_.front().end) {
    Answer answer = *std::move(requests_.front().end);
    requestBytes_ -= requests_.front().bytes;
    requests_.pop_front();
    const bool last = endsTheChannel(answer);
    tell(std::move(answer));
    if (last) {
      end("a request of the channel has failed");
    }
  }
  if (!ended_) {
    pass();
  }
}

void AttachChannel::tell(Answer answer) {
  if (answer.outcome != Outcome::answered) {
    out_.emplace_back(failedText(number_, answer));
  } else if (answer.payload.size() == 0) {  // no answer is empty
    out_.emplace_back(sentText(number_));
  } else {
    out_.emplace_back(std::move(answer.payload));
  }
  host_.ready(number_);
}

// Each request that was received gets its end, then the channel ends.
void AttachChannel::end(const std::string& text) {
  ended_ = true;
  endRest(text);
  while (stream_.nextPayload()) {
    tell(notRun(Reason::lost, text));
  }
  storeProblem_.clear();
  stored_.reset();
  out_.emplace_back(lostText(number_, text));
  host_.ready(number_);
}

void AttachChannel::endRest(const std::string& text) {
  for (Request& request : requests_) {
    drop(request, text);
    tell({request.call == 0 ? Outcome::notRun : Outcome::unknown, Reason::lost, text, {}});
  }
  requests_.clear();
  requestBytes_ = 0;
}

// The router does not tell whether a cancelled request was sent.
void AttachChannel::drop(Request& request, const std::string& text) {
  if (request.end) {
    host_.answerBytes() -= memoryOf(request.end->payload);
    return;
  }
  if (request.call != 0) {
    host_.parts().router.cancel(request.call);
  }
  host_.permit().record(
      request.task, device_,
      {request.call == 0 ? Outcome::notRun : Outcome::unknown, Reason::lost, text, {}});
}

void AttachChannel::grant() {
  if (ended_ || taken_ < kFirstCredit / 4 || requests_.size() >= kMostWaiting ||
      requestBytes_ > kMostWaitingBytes) {
    return;
  }
  allowed_ += taken_;
  host_.sendText(creditText(number_, std::exchange(taken_, 0)));
}

// Answers.

bool AttachChannel::addCredit(std::uint64_t bytes) {
  if (credit_ + bytes > kMostCredit) {
    return false;
  }
  credit_ += bytes;
  host_.ready(number_);
  return true;
}

void AttachChannel::queueFrame(const Payload& payload) {
  const auto size = static_cast<std::size_t>(payload.size());
  runel::OutgoingPayload outgoing;
  if (size <= kShortAnswer) {
    broken_ = broken_ || !payload.read(0, size, outgoing.head);
  } else {  // its ends are there at once, as the stream expects
    broken_ =
        broken_ || !payload.read(0, 1, outgoing.head) || !payload.read(size - 1, 1, outgoing.tail);
    outgoing.content.size = size - 2;
    outgoing.content.read = [payload](std::uint64_t offset, std::size_t count, std::string& bytes) {
      if (!payload.read(offset + 1, count, bytes)) {
        bytes.clear();
      }
    };
  }
  streamBytes_ += memoryOf(payload);
  stream_.send(std::move(outgoing));
}

bool AttachChannel::give() {
  while (!out_.empty() && stream_.queued() < kMessageBytes) {
    if (const auto* payload = std::get_if<Payload>(&out_.front())) {
      queueFrame(*payload);
    } else if (stream_.queued() > 0) {  // a text never comes between two parts of an answer
      break;
    } else {
      host_.sendText(std::get<std::string>(std::move(out_.front())));
    }
    out_.pop_front();
  }
  const auto most =
      static_cast<std::size_t>(std::min<std::uint64_t>({credit_, kMessageBytes, stream_.queued()}));
  if (most == 0) {
    return false;
  }
  std::string message = channelBytes(number_);
  std::size_t count = 0;
  for (const std::string_view part : stream_.outgoing(kMessageParts)) {
    const std::size_t size = std::min(part.size(), most - count);
    message.append(part.substr(0, size));
    count += size;
  }
  stream_.sent(count);
  credit_ -= count;
  if (stream_.queued() == 0) {
    host_.answerBytes() -= std::exchange(streamBytes_, 0);
  }
  host_.sendBytes(std::move(message));
  return true;
}

void AttachChannel::tick() {
  if (requests_.empty() || requests_.front().call == 0 || !out_.empty() || stream_.queued() > 0) {
    return;
  }
  const QueueState queue = host_.parts().router.queue(device_);
  if (queue.current == requests_.front().call && queue.progress > told_) {
    told_ = queue.progress;
    host_.sendText(progressText(number_));
  }
}

}  // namespace runelgw
