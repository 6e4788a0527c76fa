// SPDX-License-Identifier: Apache-2.0
// The other end of a FIFO or a terminal, where the test decides when something is read.
#ifndef TESTS_CONTRACT_LINUX_SILENT_READER_H_
#define TESTS_CONTRACT_LINUX_SILENT_READER_H_

#include <functional>
#include <string>

#include "base/unique_fd.h"

namespace zell::test {

/// Reads nothing until `take` is called.
class SilentReader {
 public:
  /// The reader of a new FIFO at @p path.
  static SilentReader ofFifo(const std::string& path);
  /// The reader of what is written to a new terminal.
  static SilentReader ofTerminal();

  /// The FIFO or the device.
  [[nodiscard]] const std::string& path() const { return path_; }
  /// Reads everything that has been written.
  [[nodiscard]] std::string take() const;

 private:
  SilentReader(UniqueFd fd, std::string path);

  UniqueFd fd_;
  std::string path_;
};

/// Expects that @p task fails with EAGAIN when 2 s have passed, with a part of what it was given
/// written. @p task writes its argument to @p reader and returns the fields of the outcome.
void expectGivesUp(const SilentReader& reader,
                   const std::function<std::string(const std::string& data)>& task);

}  // namespace zell::test

#endif  // TESTS_CONTRACT_LINUX_SILENT_READER_H_
