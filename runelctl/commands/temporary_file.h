// SPDX-License-Identifier: Apache-2.0
// Temporary files for data of standard input and standard output.
#ifndef RUNELCTL_COMMANDS_TEMPORARY_FILE_H_
#define RUNELCTL_COMMANDS_TEMPORARY_FILE_H_

#include <memory>
#include <string>
#include <utility>

#include <runel/result.h>

namespace runelctl {

/// A file in a private directory below TMPDIR, or /tmp. The directory is removed with all that is
/// in it. The file itself does not exist at first.
class TemporaryFile {
 public:
  [[nodiscard]] static runel::Result<std::shared_ptr<TemporaryFile>> create(
      const std::string& name);
  ~TemporaryFile();
  /// Takes over the @p directory.
  TemporaryFile(std::string directory, const std::string& name)
      : directory_(std::move(directory)), path_(directory_ + "/" + name) {}
  TemporaryFile(const TemporaryFile&) = delete;
  TemporaryFile& operator=(const TemporaryFile&) = delete;

  [[nodiscard]] const std::string& path() const { return path_; }

 private:
  const std::string directory_;
  const std::string path_;
};

/// Reads standard input to its end into a file with the name @p name and the usual mode of a new
/// file. A signal that ends the process removes the file first.
[[nodiscard]] runel::Result<std::shared_ptr<TemporaryFile>> spoolInput(const std::string& name);

}  // namespace runelctl

#endif  // RUNELCTL_COMMANDS_TEMPORARY_FILE_H_
