// SPDX-License-Identifier: Apache-2.0
// The read end of a FIFO or a terminal. The test decides when it reads.
#ifndef TESTS_CONTRACT_LINUX_SILENT_READER_H_
#define TESTS_CONTRACT_LINUX_SILENT_READER_H_

#include <functional>
#include <string>

#include "base/unique_fd.h"

namespace zell::test {

/// Reads only when `take` is called.
class SilentReader {
 public:
  /// The reader of a new FIFO at @p path.
  static SilentReader ofFifo(const std::string& path);
  /// The reader of a new terminal.
  static SilentReader ofTerminal();

  /// The path of the FIFO or the terminal.
  [[nodiscard]] const std::string& path() const { return path_; }
  /// Reads everything that has been written.
  [[nodiscard]] std::string take() const;

 private:
  SilentReader(UniqueFd fd, std::string path);

  UniqueFd fd_;
  std::string path_;
};

/// Expects that @p task fails with EAGAIN after 2 s with a part of its argument written. @p task
/// writes its argument to @p reader and returns the status fields.
void expectGivesUp(const SilentReader& reader,
                   const std::function<std::string(const std::string& data)>& task);

}  // namespace zell::test

#endif  // TESTS_CONTRACT_LINUX_SILENT_READER_H_
