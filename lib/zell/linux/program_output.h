// SPDX-License-Identifier: Apache-2.0
// What a program writes.
#ifndef ZELL_LINUX_PROGRAM_OUTPUT_H_
#define ZELL_LINUX_PROGRAM_OUTPUT_H_

#include <cstddef>
#include <string>

#include "base/unique_fd.h"

namespace zell {

/// The most that is kept of a program's output, in bytes.
constexpr std::size_t kMaxProgramOutput = std::size_t{16} * 1024 * 1024;

/// The reading end of the pipe that a program writes its output into. What comes after
/// kMaxProgramOutput bytes is read all the same, so that the program is not held up, and thrown
/// away.
class ProgramOutput {
 public:
  /// Collects into @p text, borrowed.
  explicit ProgramOutput(std::string& text) : text_(text) {}

  /// Makes the pipe and puts its writing end, which blocks, into @p writing. 0 or an errno value.
  [[nodiscard]] int open(UniqueFd& writing);
  /// The descriptor to wait on; -1 once all writers have closed the pipe.
  [[nodiscard]] int fd() const { return reading_.get(); }
  /// Takes one piece of what is waiting. Never blocks.
  void takeSome();
  /// Takes what is in the pipe now, and no more: others may hold the pipe and go on writing.
  void takeRest();

 private:
  /// Reads at most @p most bytes; how many came.
  std::size_t take(std::size_t most);
  void keep(const char* piece, std::size_t length);

  std::string& text_;
  UniqueFd reading_;
  bool cut_ = false;
};

}  // namespace zell

#endif  // ZELL_LINUX_PROGRAM_OUTPUT_H_
