// SPDX-License-Identifier: Apache-2.0
#include <zell/slave_task.h>

#include <cerrno>
#include <charconv>
#include <string_view>
#include <utility>

#include <zell/slave_proxy.h>

#include "zell/wire/record_reader.h"

namespace zell {
namespace {

// From this length on, a string goes to the stream by itself and an argument takes the message's
// memory: below it, one more copy costs less than the care.
constexpr std::size_t kLong = 65536;

// Most replies are shorter than this.
constexpr std::size_t kShort = 256;

// Gathers the short fields of a record, so that the stream is asked for few writes.
class RecordWriter {
 public:
  explicit RecordWriter(std::ostream& out) : out_(out) {
    text_.reserve(kShort);
    text_ = kRecordName;
  }
  ~RecordWriter() { flush(); }
  RecordWriter(const RecordWriter&) = delete;
  RecordWriter& operator=(const RecordWriter&) = delete;

  template <typename Number>
  void number(Number value) {
    char digits[24];
    text_ += ' ';
    text_.append(digits, std::to_chars(digits, digits + sizeof digits, value).ptr);
  }

  void string(const std::string& bytes) {
    number(bytes.size());
    text_ += ':';
    if (bytes.size() < kLong) {
      text_ += bytes;
    } else {
      flush();
      write(bytes);
    }
  }

 private:
  void write(const std::string& bytes) {
    out_.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  }
  void flush() {
    write(text_);
    text_.clear();
  }

  std::ostream& out_;
  std::string text_;
};

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

// Takes the arguments out of a message whose layout is known to be sound. @p skipped, a part of the
// message or nothing, gets an empty place in the list, which is the result.
std::size_t takeArgs(std::string_view message, std::string_view skipped,
                     std::vector<std::string>& args) {
  RecordReader reader(message);
  std::int32_t argc = 0;
  std::size_t place = 0;
  bool sound = reader.readName() && reader.readNumber(argc);
  args.reserve(static_cast<std::size_t>(argc));
  for (std::int32_t i = 0; sound && i < argc; ++i) {
    std::string_view arg;
    sound = reader.readString(arg);
    if (!skipped.empty() && arg.data() == skipped.data()) {
      place = args.size();
      args.emplace_back();
    } else {
      args.emplace_back(arg);
    }
  }
  return place;
}

// Cuts @p message down to @p part of it, in place.
void keepOnly(std::string& message, std::string_view part) {
  const auto begin = static_cast<std::size_t>(part.data() - message.data());
  message.resize(begin + part.size());
  message.erase(0, begin);
}

}  // namespace

// What a well-formed record holds, its strings still in the message.
struct SlaveTask::Layout {
  std::int32_t argc = 0;
  std::string_view longest;  // of the arguments
  std::int32_t execParam = 0;
  std::string_view output;
  ResultStatus status;

  // Looks the whole record through before anything is stored: the number of arguments that it
  // claims is then a true one.
  bool read(std::string_view message) {
    RecordReader reader(message);
    return reader.readName() && readArgs(reader) && reader.readSigned(execParam) &&
           reader.readString(output) && readStatus(reader, status) && reader.atEnd();
  }

  bool readArgs(RecordReader& reader) {
    bool sound = reader.readNumber(argc);
    for (std::int32_t i = 0; sound && i < argc; ++i) {
      std::string_view arg;
      sound = reader.readString(arg);
      longest = arg.size() > longest.size() ? arg : longest;
    }
    return sound;
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
  RecordWriter writer(out);
  writer.number(args_.size());
  for (const std::string& arg : args_) {
    writer.string(arg);
  }
  writer.number(execParam_);
  writer.string(output_);
  writer.number(static_cast<int>(status_.status));
  writer.number(static_cast<int>(status_.state));
  writer.number(status_.result);
  writer.number(status_.error);
  writer.number(status_.signal);
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
  output_ = layout.output;
  status_ = layout.status;
}

bool SlaveTask::parse(const std::string& message) {
  clear();
  Layout layout;
  if (!layout.read(message)) {
    return false;
  }
  take(layout);
  (void)takeArgs(message, {}, args_);  // none is left out
  return true;
}

bool SlaveTask::parse(std::string&& message) {
  clear();
  Layout layout;
  if (!layout.read(message)) {
    return false;
  }
  take(layout);
  if (layout.longest.size() < kLong) {
    (void)takeArgs(message, {}, args_);  // likewise
    return true;
  }
  const std::size_t place = takeArgs(message, layout.longest, args_);
  keepOnly(message, layout.longest);
  args_[place] = std::move(message);
  return true;
}

}  // namespace zell
