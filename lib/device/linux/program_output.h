// SPDX-License-Identifier: Apache-2.0
// Collects the output of a program.
#ifndef ZELL_DEVICE_LINUX_PROGRAM_OUTPUT_H_
#define ZELL_DEVICE_LINUX_PROGRAM_OUTPUT_H_

#include <cstddef>
#include <string>

#include "base/unique_fd.h"
#include "protocol/protocol.h"

namespace zell {

/// The reading end of the pipe for a program's output. Reads and discards everything after
/// kMaxProgramOutput bytes, so that the program does not block.
class ProgramOutput {
 public:
  /// Appends to @p text, which is borrowed.
  explicit ProgramOutput(std::string& text) : text_(text) {}

  /// Creates the pipe and stores its blocking writing end in @p writing. Returns 0 or an errno
  /// value.
  [[nodiscard]] int open(UniqueFd& writing);
  /// The descriptor to wait on. -1 once all writers have closed the pipe.
  [[nodiscard]] int fd() const { return reading_.get(); }
  /// Reads one piece of the waiting output. Never blocks.
  void takeSome();
  /// Reads what is in the pipe now and no more: other processes may still write to the pipe.
  void takeRest();

 private:
  /// Reads at most @p most bytes. Returns the number of bytes read.
  std::size_t take(std::size_t most);
  void keep(const char* piece, std::size_t length);

  std::string& text_;
  UniqueFd reading_;
  bool cut_ = false;
};

}  // namespace zell

#endif  // ZELL_DEVICE_LINUX_PROGRAM_OUTPUT_H_
