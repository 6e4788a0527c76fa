// SPDX-License-Identifier: Apache-2.0
#include "client/jobs/segment_reader.h"

#include <algorithm>
#include <cerrno>
#include <utility>

#include <runel/records.h>

namespace runel {
namespace {

constexpr std::size_t kAnswerOverhead = 65536;
constexpr int kMostFailures = 3;
constexpr int kTailSeconds = 60;

}  // namespace

SegmentReader::SegmentReader(JobPlace place, std::string stream, const JobStarted& started)
    : place_(std::move(place)), stream_(std::move(stream)), segment_(started.segment) {}

std::string SegmentReader::path(std::uint64_t index) const {
  return place_.path(stream_ + "." + std::to_string(index));
}

Request SegmentReader::sizeRequest() const {
  return Request({"stat", path(index_)});
}

void SegmentReader::sized(const Reply& reply) {
  const std::optional<Stat> st = reply.ok() ? parseStat(reply.output()) : std::nullopt;
  missing_ = !st;
  size_ = st ? std::min(st->size, segment_) : 0;
}

void SegmentReader::found(const std::vector<std::string>& names) {
  missing_ = false;
  std::optional<std::uint64_t> lowest;
  for (const std::string& name : names) {
    const std::optional<std::uint64_t> number = parseSegmentName(name, stream_);
    if (number && *number >= index_) {
      lowest = std::min(lowest.value_or(*number), *number);
      last_ = std::max(last_, *number);
    }
  }
  if (lowest && *lowest > index_) {
    gone_ += (*lowest - index_) * segment_ - offset_;
    first_ = index_ = *lowest;
    offset_ = size_ = 0;
  }
}

// "read" needs no process, but has no offset. A program for it must write nothing else: dd tells
// what it has done.
Request SegmentReader::nextRequest() const {
  Request request =
      offset_ == 0 ? Request({"read", path(index_)})
                   : Request::exec({"tail", "-c", "+" + std::to_string(offset_ + 1), path(index_)},
                                   kTailSeconds);
  request.setReplyLimit(segment_ + kAnswerOverhead);
  return request;
}

Result<std::string> SegmentReader::take(const Reply& reply) {
  if (!reply.ok()) {
    const bool absent = reply.number() == ENOENT && offset_ > 0;  // the program, not the file
    if (absent || ++failures_ == kMostFailures) {
      return reply.error(offset_ > 0 ? "tail" : path(index_));
    }
    size_ = offset_;
    return std::string();
  }
  if (reply.output().size() > segment_ - offset_) {
    return Error(Kind::link, Cause::protocol, "malformed answer: the output is longer than told");
  }
  failures_ = 0;
  offset_ += reply.output().size();
  size_ = offset_;
  last_ = std::max(last_, index_);
  if (offset_ == segment_) {
    ++index_;
    offset_ = size_ = 0;
  }
  return reply.output();
}

std::vector<Request> SegmentReader::makeRoom(std::uint64_t limit) {
  std::vector<Request> requests;
  while (first_ < index_ && (std::max(last_, index_) - first_ + 1) * segment_ > limit / 2) {
    requests.push_back(Request({"unlink", path(first_++)}));
  }
  return requests;
}

}  // namespace runel
