// SPDX-License-Identifier: Apache-2.0
// The files of --output-dir: the output of each device in files of a directory.
#ifndef RUNELCTL_OUTPUT_OUTPUT_FILES_H_
#define RUNELCTL_OUTPUT_OUTPUT_FILES_H_

#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <utility>

#include "base/unique_fd.h"

namespace runelctl {

/// A file name for the name of a device. Different names have different file names, and none leads
/// out of a directory.
[[nodiscard]] std::string fileNameFor(std::string_view device);

/// The two files of one device: its output, and the messages about it.
class OutputFiles {
 public:
  OutputFiles(zell::UniqueFd out, zell::UniqueFd err)
      : out_(std::move(out)), err_(std::move(err)) {}

  void addOutput(std::string_view bytes) { add(out_, bytes); }
  void addError(std::string_view bytes) { add(err_, bytes); }
  /// The errno value of the first failed write, 0 for none.
  [[nodiscard]] int error() const { return error_; }

 private:
  void add(const zell::UniqueFd& file, std::string_view bytes);

  zell::UniqueFd out_;
  zell::UniqueFd err_;
  int error_ = 0;
};

class OutputDirectory {
 public:
  /// Opens the directory @p path, and creates it if it is missing. Returns 0 or an errno value.
  [[nodiscard]] int open(const std::string& path);
  [[nodiscard]] bool isOpen() const { return directory_.valid(); }

  /// Creates the files of @p device, in place of existing ones, which are never written through a
  /// link. A second device with the same name appends to the files of the first. Null with errno on
  /// failure.
  [[nodiscard]] std::unique_ptr<OutputFiles> create(const std::string& device);
  /// The path of the file with the output of @p device, for a message.
  [[nodiscard]] std::string pathFor(const std::string& device) const;

 private:
  [[nodiscard]] zell::UniqueFd createFile(const std::string& name, bool again);

  std::string path_;
  zell::UniqueFd directory_;
  std::set<std::string> created_;
};

}  // namespace runelctl

#endif  // RUNELCTL_OUTPUT_OUTPUT_FILES_H_
