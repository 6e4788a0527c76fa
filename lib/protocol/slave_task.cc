// SPDX-License-Identifier: Apache-2.0
#include <zell/slave_task.h>

#include <cerrno>
#include <charconv>
#include <string_view>
#include <utility>

#include <zell/slave_proxy.h>

#include "protocol/protocol.h"
#include "protocol/record_reader.h"

namespace zell {
namespace {

// From this length on, an output goes to the stream separately and an argument takes over the
// message's memory. Below it, an additional copy is cheaper.
constexpr std::size_t kLong = 65536;

// The size that most replies do not exceed.
constexpr std::size_t kShort = 256;

template <typename Number>
void addNumber(std::string& text, Number number) {
  char digits[24];
  text += ' ';
  text.append(digits, std::to_chars(digits, digits + sizeof digits, number).ptr);
}

// The field of a string, without its bytes.
void addLength(std::string& text, const std::string& bytes) {
  addNumber(text, bytes.size());
  text += ':';
}

void write(std::ostream& out, std::string_view bytes) {
  out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

bool readStatus(RecordReader& reader, ResultStatus& status) {
  std::int32_t type = 0;
  std::int32_t state = 0;
  if (!reader.readNumber(type) || !reader.readNumber(state) || !reader.readSigned(status.result) ||
      !reader.readNumber(status.error) || !reader.readNumber(status.signal)) {
    return false;
  }
  status.status = static_cast<SlaveStatus::Type>(type);
  status.state = static_cast<WatchProcessState_t>(state);
  return true;
}

// Extracts the arguments from a message with a valid layout. @p skipped, a part of the message or
// empty, becomes an empty string in the list. Returns the index of that string.
std::size_t takeArgs(std::string_view message, std::string_view skipped,
                     std::vector<std::string>& args) {
  RecordReader reader(message);
  std::int32_t argc = 0;
  std::size_t place = 0;
  bool valid = reader.readName() && reader.readNumber(argc);
  args.reserve(static_cast<std::size_t>(argc));
  for (std::int32_t i = 0; valid && i < argc; ++i) {
    std::string_view arg;
    valid = reader.readString(arg);
    if (!skipped.empty() && arg.data() == skipped.data()) {
      place = args.size();
      args.emplace_back();
    } else {
      args.emplace_back(arg);
    }
  }
  return place;
}

// Truncates @p message to @p part of it, in place.
void keepOnly(std::string& message, std::string_view part) {
  const auto begin = static_cast<std::size_t>(part.data() - message.data());
  message.resize(begin + part.size());
  message.erase(0, begin);
}

}  // namespace

// The fields of a well-formed record. The strings refer to the message.
struct SlaveTask::Layout {
  std::int32_t argc = 0;
  std::string_view longest;  // the longest argument
  std::int32_t execParam = 0;
  std::string_view output;
  ResultStatus status;

  // Validates the whole record before anything is stored, so that the number of arguments that it
  // claims is correct.
  bool read(std::string_view message) {
    RecordReader reader(message);
    return reader.readName() && readArgs(reader) && reader.readSigned(execParam) &&
           reader.readString(output) && readStatus(reader, status) && reader.atEnd();
  }

  bool readArgs(RecordReader& reader) {
    bool valid = reader.readNumber(argc);
    for (std::int32_t i = 0; valid && i < argc; ++i) {
      std::string_view arg;
      valid = reader.readString(arg);
      longest = arg.size() > longest.size() ? arg : longest;
    }
    return valid;
  }
};

SlaveTask::SlaveTask() = default;

SlaveTask::SlaveTask(std::string text, const SlaveProxy* proxy) : output_(std::move(text)) {
  if (proxy != nullptr) {
    status_ = proxy->resultStatus();
  }
  if (output_.size() > kMaxReplyText) {
    std::string().swap(output_);
    status_ = {SlaveStatus::failure, WatchProcessState_t::none, 1, EFBIG, 0};
  }
}

SlaveTask::SlaveTask(const std::vector<std::string>& args, int execParam, const std::string& output,
                     SlaveStatus::Type status, WatchProcessState_t state, int result, int error,
                     int signal)
    : args_(args),
      execParam_(execParam),
      output_(output),
      status_{status, state, result, error, signal} {}

SlaveTask::~SlaveTask() = default;

void SlaveTask::serialize(std::ostream& out) const {
  Parts record = parts();
  if (record.output.size() < kLong) {
    write(out, record.head.append(record.output).append(record.tail));
    return;
  }
  write(out, record.head);
  write(out, record.output);
  write(out, record.tail);
}

SlaveTask::Parts SlaveTask::parts() const {
  Parts record;
  record.head.reserve(kShort);
  record.head = kRecordName;
  addNumber(record.head, args_.size());
  for (const std::string& arg : args_) {
    addLength(record.head, arg);
    record.head += arg;
  }
  addNumber(record.head, execParam_);
  addLength(record.head, output_);
  record.output = output_;
  addNumber(record.tail, static_cast<int>(status_.status));
  addNumber(record.tail, static_cast<int>(status_.state));
  addNumber(record.tail, status_.result);
  addNumber(record.tail, status_.error);
  addNumber(record.tail, status_.signal);
  return record;
}

bool SlaveTask::isA(const std::string& message) {
  const std::size_t length = kRecordName.size();
  return message.size() > length && message[length] == ' ' &&
         message.compare(0, length, kRecordName) == 0;
}

void SlaveTask::clear() {
  args_.clear();
  execParam_ = 0;
  output_.clear();
  status_ = ResultStatus();
}

void SlaveTask::take(const Layout& layout) {
  execParam_ = layout.execParam;
  status_ = layout.status;
}

bool SlaveTask::parse(const std::string& message) {
  clear();
  Layout layout;
  if (!layout.read(message)) {
    return false;
  }
  take(layout);
  output_ = layout.output;
  (void)takeArgs(message, {}, args_);  // without a skipped argument
  return true;
}

bool SlaveTask::parse(std::string&& message) {
  clear();
  Layout layout;
  if (!layout.read(message)) {
    return false;
  }
  take(layout);
  if (layout.output.size() >= kLong && layout.output.size() > layout.longest.size()) {
    (void)takeArgs(message, {}, args_);  // without a skipped argument
    keepOnly(message, layout.output);
    output_ = std::move(message);
    return true;
  }
  output_ = layout.output;
  if (layout.longest.size() < kLong) {
    (void)takeArgs(message, {}, args_);  // without a skipped argument
    return true;
  }
  const std::size_t place = takeArgs(message, layout.longest, args_);
  keepOnly(message, layout.longest);
  args_[place] = std::move(message);
  return true;
}

}  // namespace zell
