// SPDX-License-Identifier: Apache-2.0
#include "client/jobs/job_files.h"

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <system_error>
#include <utility>

namespace runel {
namespace {

constexpr std::size_t kLongestId = 100;
constexpr std::size_t kLongestDirectory = 1000;
// A larger segment would need a larger answer than the device gives, and a larger number of a
// segment would overflow its offset.
constexpr std::uint64_t kLargestSegment = std::uint64_t{16} * 1024 * 1024;
constexpr std::uint64_t kMostSegments = std::uint64_t{1} << 32U;

bool isLetterOrDigit(char byte) {
  return (byte >= 'a' && byte <= 'z') || (byte >= 'A' && byte <= 'Z') ||
         (byte >= '0' && byte <= '9');
}

template <typename Number>
bool isWholeNumber(std::string_view text, Number& value) {
  const auto [stop, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  return error == std::errc() && stop == text.data() + text.size();
}

std::string_view withoutTrailingBlanks(std::string_view text) {
  const std::size_t last = text.find_last_not_of(" \n");
  return text.substr(0, last == std::string_view::npos ? 0 : last + 1);
}

// Takes the words of a line, which one blank separates.
class JobWords {
 public:
  explicit JobWords(std::string_view line) : rest_(withoutTrailingBlanks(line)) {}

  std::string_view next() {
    const std::size_t end = std::min(rest_.find(' '), rest_.size());
    const std::string_view word = rest_.substr(0, end);
    rest_.remove_prefix(std::min(end + 1, rest_.size()));
    return word;
  }
  template <typename Number>
  JobWords& number(Number& value) {
    sound_ = isWholeNumber(next(), value) && sound_;
    return *this;
  }
  // A number that may be missing: the device has no program for it.
  JobWords& time(std::int64_t& value) {
    if (!rest_.empty()) {
      number(value);
    }
    return *this;
  }
  [[nodiscard]] bool sound() const { return sound_ && rest_.empty(); }

 private:
  std::string_view rest_;
  bool sound_ = true;
};

std::optional<JobStarted> parseStarted(std::string_view line) {
  JobWords words(line);
  JobStarted started;
  std::uint64_t copier = 0;
  started.boot = words.next();
  words.number(started.pid).number(started.group).number(started.begin);
  words.number(copier).number(copier).number(copier);  // only for the device
  words.number(started.limit).number(started.segment).time(started.time);
  const bool sound = words.sound() && !started.boot.empty() && started.segment > 0 &&
                     started.segment <= kLargestSegment;
  return sound ? std::make_optional(std::move(started)) : std::nullopt;
}

// Adds the line "KEY VALUE" to @p job. Ignores unknown keys: a later version may have more.
bool addLine(std::string_view key, std::string_view value, JobRecord& job) {
  if (key == "started") {
    job.started = parseStarted(value);
    return job.started.has_value();
  }
  if (key == "status") {
    job.status = parseJobStatus(value);
    return job.status.has_value();
  }
  if (key == "command") {
    job.command = value;
  }
  job.alive = job.alive || key == "alive";
  return true;
}

}  // namespace

JobPhase JobRecord::phase() const {
  if (status) {
    return JobPhase::ended;
  }
  if (!started) {
    return JobPhase::claimed;
  }
  return alive ? JobPhase::running : JobPhase::interrupted;
}

std::optional<std::vector<JobRecord>> parseJobs(std::string_view text) {
  std::vector<JobRecord> jobs;
  while (!text.empty()) {
    const std::size_t end = text.find('\n');
    if (end == std::string_view::npos) {
      return std::nullopt;
    }
    const std::string_view line = text.substr(0, end);
    text.remove_prefix(end + 1);
    const std::size_t blank = std::min(line.find(' '), line.size());
    const std::string_view key = line.substr(0, blank);
    const std::string_view value = line.substr(std::min(blank + 1, line.size()));
    if (key == "job") {
      if (!isJobId(value)) {
        return std::nullopt;
      }
      jobs.emplace_back();
      jobs.back().id = value;
    } else if (!jobs.empty() && !addLine(key, value, jobs.back())) {
      return std::nullopt;
    }
  }
  return jobs;
}

std::optional<JobStatus> parseJobStatus(std::string_view text) {
  JobWords words(text);
  JobStatus status{};
  int late = 0;
  words.number(status.code).number(late);
  words.number(status.lost[0]).number(status.lost[1]).time(status.time);
  status.late = late != 0;
  return words.sound() ? std::make_optional(status) : std::nullopt;
}

// Fields are counted after the last ')', because the name may contain any bytes.
std::optional<std::uint64_t> parseProcessStart(std::string_view text) {
  const std::size_t name = text.rfind(") ");
  if (name == std::string_view::npos) {
    return std::nullopt;
  }
  JobWords words(text.substr(name + 2));
  const std::string_view state = words.next();
  for (int field = 4; field < 22; ++field) {
    (void)words.next();
  }
  std::uint64_t start = 0;
  const bool known = isWholeNumber(words.next(), start);
  return known && state != "Z" && state != "X" ? std::make_optional(start) : std::nullopt;
}

std::optional<std::uint64_t> parseSegmentName(std::string_view name, std::string_view stream) {
  std::uint64_t number = 0;
  const bool known = name.size() > stream.size() + 1 && name.substr(0, stream.size()) == stream &&
                     name[stream.size()] == '.' &&
                     isWholeNumber(name.substr(stream.size() + 1), number);
  return known && number < kMostSegments ? std::make_optional(number) : std::nullopt;
}

bool isJobId(std::string_view id) {
  return !id.empty() && id.size() <= kLongestId && isLetterOrDigit(id.front()) &&
         std::all_of(id.begin(), id.end(), [](char byte) {
           return isLetterOrDigit(byte) || byte == '.' || byte == '_' || byte == '-';
         });
}

bool isJobDirectory(std::string_view path) {
  if (path.size() < 2 || path.size() > kLongestDirectory || path.front() != '/' ||
      path.find('\0') != std::string_view::npos) {
    return false;
  }
  while (!path.empty()) {
    path.remove_prefix(1);  // the slash
    const std::size_t end = std::min(path.find('/'), path.size());
    const std::string_view part = path.substr(0, end);
    if (part.empty() || part == "." || part == "..") {
      return false;
    }
    path.remove_prefix(end);
  }
  return true;
}

}  // namespace runel
