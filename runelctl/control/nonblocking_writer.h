// SPDX-License-Identifier: Apache-2.0
// Output that never blocks the program, even if it is not read.
#ifndef RUNELCTL_CONTROL_NONBLOCKING_WRITER_H_
#define RUNELCTL_CONTROL_NONBLOCKING_WRITER_H_

#include <cstddef>
#include <string>
#include <string_view>

#include <runel/loop.h>

namespace runelctl {

/// Writes without blocking. Buffers a limited amount and drops further lines.
class NonBlockingWriter {
 public:
  NonBlockingWriter(runel::Loop& loop, int fd) : loop_(loop), fd_(fd) {}
  /// Writes as much as possible without blocking.
  ~NonBlockingWriter();
  NonBlockingWriter(const NonBlockingWriter&) = delete;
  NonBlockingWriter& operator=(const NonBlockingWriter&) = delete;

  /// Writes complete lines, which are dropped together.
  void write(std::string_view lines);

 private:
  void flush();
  [[nodiscard]] bool writeSome();

  runel::Loop& loop_;
  const int fd_;
  std::string waiting_;
  std::size_t leftOut_ = 0;
  bool broken_ = false;
  runel::Timer timer_;
};

}  // namespace runelctl

#endif  // RUNELCTL_CONTROL_NONBLOCKING_WRITER_H_
