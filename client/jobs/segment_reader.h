// SPDX-License-Identifier: Apache-2.0
// Reads one output stream of a job, segment by segment.
#ifndef RUNEL_JOBS_SEGMENT_READER_H_
#define RUNEL_JOBS_SEGMENT_READER_H_

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <runel/request.h>
#include <runel/result.h>

#include "client/jobs/job_requests.h"

namespace runel {

/// The position in a stream, the requests from there, and what their answers mean. Sends nothing.
class SegmentReader {
 public:
  /// @p stream is "out" or "err". Starts at the beginning of the stream.
  SegmentReader(JobPlace place, std::string stream, const JobStarted& started);

  /// Asks for the size of the current segment.
  [[nodiscard]] Request sizeRequest() const;
  void sized(const Reply& reply);
  /// The current segment does not exist: it was not written yet, or another reader has removed it.
  /// `found` tells.
  [[nodiscard]] bool missing() const { return missing_; }
  /// @p names are those in the directory of the job. Continues at the first segment that exists.
  void found(const std::vector<std::string>& names);

  /// There are bytes to fetch.
  [[nodiscard]] bool hasMore() const { return size_ > offset_; }
  /// Asks for the rest of the current segment.
  [[nodiscard]] Request nextRequest() const;
  /// The new bytes in the @p reply. None if another reader has removed the segment.
  [[nodiscard]] Result<std::string> take(const Reply& reply);
  /// The last `take` has completed a segment: there may be a further segment.
  [[nodiscard]] bool completed() const { return offset_ == 0 && index_ > 0; }

  /// The requests that remove complete segments, each once, if the stream uses more than half of
  /// @p limit bytes.
  [[nodiscard]] std::vector<Request> makeRoom(std::uint64_t limit);
  /// The number of bytes that were removed before they were read.
  [[nodiscard]] std::uint64_t gone() const { return gone_; }

 private:
  [[nodiscard]] std::string path(std::uint64_t index) const;

  const JobPlace place_;
  const std::string stream_;
  const std::uint64_t segment_;
  std::uint64_t first_ = 0;   // the first segment that may exist
  std::uint64_t last_ = 0;    // the last one that is known to exist
  std::uint64_t index_ = 0;   // the current one
  std::uint64_t offset_ = 0;  // in the current one
  std::uint64_t size_ = 0;    // of the current one, as far as known
  std::uint64_t gone_ = 0;
  bool missing_ = false;
  int failures_ = 0;  // in a row
};

}  // namespace runel

#endif  // RUNEL_JOBS_SEGMENT_READER_H_
