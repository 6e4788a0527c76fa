// SPDX-License-Identifier: Apache-2.0
// Local files and directories: scanning and reading the sources of a push, writing the targets of a
// pull.
#ifndef RUNELCTL_COMMANDS_LOCAL_TREE_H_
#define RUNELCTL_COMMANDS_LOCAL_TREE_H_

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <runel/records.h>

#include "base/unique_fd.h"
#include "client/core/paths.h"
#include "output/error.h"

namespace runelctl {

/// One file, directory or link to send.
struct LocalEntry {
  char type = '-';       ///< '-', 'd' or 'l'
  std::string path;      ///< local path
  std::string relative;  ///< relative to the source; "" for the source itself
  std::string target;    ///< target of a symbolic link
  std::uint32_t mode = 0;
  std::uint64_t size = 0;
  runel::Timestamp mtime;
};

/// One source, with all entries below it if it is a directory. A directory precedes its entries,
/// which are sorted by byte value.
struct LocalSource {
  std::string name;  ///< its last component
  std::vector<LocalEntry> entries;
};

/// Scans @p path. Returns an error if it is missing, unreadable, a directory without @p recursive,
/// or not a file or directory. Entries below a directory that are not a file, directory or link are
/// skipped and listed in @p left.
[[nodiscard]] std::optional<Error> scanLocal(const std::string& path, bool recursive,
                                             LocalSource& source, std::vector<std::string>& left);

/// Reads a local file and detects changes by others during reading.
class LocalReader {
 public:
  [[nodiscard]] std::optional<Error> open(const std::string& path);
  /// Reads @p count bytes from @p offset. An earlier end of file is an error: the file has changed.
  [[nodiscard]] std::optional<Error> read(std::uint64_t offset, std::size_t count,
                                          std::string& bytes) const;
  /// True if size or time differ from those at `open`.
  [[nodiscard]] bool changed() const;
  /// The error to report then.
  [[nodiscard]] Error changedError() const;
  [[nodiscard]] std::uint64_t size() const { return size_; }

 private:
  std::string path_;
  zell::UniqueFd file_;
  std::uint64_t size_ = 0;
  runel::Timestamp mtime_;
};

/// Writes a local file under a hidden name in the directory of its target. The destructor removes
/// an unfinished file, unless it was begun for resuming and is not empty.
class LocalWriter {
 public:
  LocalWriter() = default;
  ~LocalWriter();
  LocalWriter(const LocalWriter&) = delete;
  LocalWriter& operator=(const LocalWriter&) = delete;

  /// Starts writing @p path. With @p resume, keeps the partial file of an earlier attempt; `size`
  /// is its size.
  [[nodiscard]] std::optional<Error> begin(const std::string& path, bool resume);
  [[nodiscard]] std::optional<Error> add(std::string_view bytes);
  /// Truncates the partial file to @p size bytes.
  [[nodiscard]] std::optional<Error> cutTo(std::uint64_t size);
  /// Sets mode and time and renames the file to its target.
  [[nodiscard]] std::optional<Error> finish(std::uint32_t mode, const runel::Timestamp& mtime);
  /// Removes the unfinished file.
  void discard();
  [[nodiscard]] std::uint64_t size() const { return size_; }
  [[nodiscard]] const std::string& hiddenPath() const { return hidden_; }

 private:
  std::string path_;
  std::string hidden_;
  zell::UniqueFd file_;
  bool resume_ = false;
  std::uint64_t size_ = 0;
};

/// Creates the directory @p path unless it exists. A symbolic link to a directory is an error.
[[nodiscard]] std::optional<Error> makeLocalDirectory(const std::string& path);
/// Creates the symbolic link @p path to @p target and replaces an existing file or link.
[[nodiscard]] std::optional<Error> makeLocalLink(const std::string& path,
                                                 const std::string& target);
/// Sets mode and time of the directory @p path.
[[nodiscard]] std::optional<Error> finishLocalDirectory(const std::string& path, std::uint32_t mode,
                                                        const runel::Timestamp& mtime);

/// Format a mode for chmod(1) and a time for `touch -d`.
[[nodiscard]] std::string octalMode(std::uint32_t mode);
[[nodiscard]] std::string touchTime(const runel::Timestamp& time, bool fractions);

/// The path of the partial file for the target @p path, in the same directory. It has a fixed
/// length and depends only on @p path.
[[nodiscard]] std::string partPath(const std::string& path);

/// Hex SHA-256 of the first @p count bytes of @p path.
[[nodiscard]] std::optional<std::string> localSha256(const std::string& path, std::uint64_t count);

}  // namespace runelctl

#endif  // RUNELCTL_COMMANDS_LOCAL_TREE_H_
