// SPDX-License-Identifier: Apache-2.0
// Pipes, also in place of the standard streams.
#ifndef TESTS_UNIT_CONTROL_STREAMS_H_
#define TESTS_UNIT_CONTROL_STREAMS_H_

#include <cstddef>
#include <functional>
#include <string>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <runel/loop.h>

#include "base/unique_fd.h"
#include "output/style.h"

namespace runelctl::test {

/// A pipe whose read end does not block.
class Pipe {
 public:
  explicit Pipe(int bytes = 65536) {
    int ends[2] = {-1, -1};
    EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0);
    EXPECT_EQ(fcntl(ends[0], F_SETFL, O_NONBLOCK), 0);
    EXPECT_GE(fcntl(ends[1], F_SETPIPE_SZ, bytes), bytes);
    in.reset(ends[1]);
    out.reset(ends[0]);
  }

  /// All bytes in the pipe.
  [[nodiscard]] std::string read() const {
    std::string all;
    char part[65536];
    ssize_t got = ::read(out.get(), part, sizeof part);
    while (got > 0) {
      all.append(part, static_cast<std::size_t>(got));
      got = ::read(out.get(), part, sizeof part);
    }
    return all;
  }

  zell::UniqueFd in;   ///< to write to
  zell::UniqueFd out;  ///< to read from
};

/// Puts a pipe in place of a standard stream while it lives.
class ReplacedStream {
 public:
  explicit ReplacedStream(int stream, int pipeSize = 65536)
      : pipe_(pipeSize), stream_(stream), before_(fcntl(stream, F_DUPFD_CLOEXEC, 3)) {
    EXPECT_EQ(dup2(pipe_.in.get(), stream), stream);
  }
  ~ReplacedStream() {
    EXPECT_EQ(dup2(before_.get(), stream_), stream_);
    if (::testing::Test::HasFailure()) {  // the messages of failures went to the pipe too
      (void)read();
      EXPECT_TRUE(writeAll(stream_, all_));
    }
  }
  ReplacedStream(const ReplacedStream&) = delete;
  ReplacedStream& operator=(const ReplacedStream&) = delete;

  /// What was written since the last call.
  [[nodiscard]] std::string read() {
    std::string text = pipe_.read();
    all_ += text;
    return text;
  }

 private:
  Pipe pipe_;
  std::string all_;
  const int stream_;
  zell::UniqueFd before_;
};

/// Runs @p loop until @p done, at most for a time that is far longer than any test needs.
inline void runUntil(runel::Loop& loop, const std::function<bool()>& done) {
  bool over = done();
  for (int i = 0; i < 12000 && !over; ++i) {
    loop.turn(runel::Milliseconds(5));
    over = done();
  }
  ASSERT_TRUE(over);
}

}  // namespace runelctl::test

#endif  // TESTS_UNIT_CONTROL_STREAMS_H_
