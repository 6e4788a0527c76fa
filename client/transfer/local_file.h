// SPDX-License-Identifier: Apache-2.0
// Files of this host: reads the sources of a push, writes the targets of a pull.
#ifndef RUNEL_TRANSFER_LOCAL_FILE_H_
#define RUNEL_TRANSFER_LOCAL_FILE_H_

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include <sys/types.h>

#include <runel/error.h>
#include <runel/records.h>

#include "base/unique_fd.h"
#include "client/transfer/local_directory.h"

namespace runel {

[[nodiscard]] Timestamp timestampOf(const timespec& time);

/// Reads a local file and detects changes by others during reading.
class LocalReader {
 public:
  /// Fails for anything but a regular file: a file that has become a link or a pipe has changed.
  [[nodiscard]] std::optional<Error> open(const LocalPath& path);
  void close() { file_.reset(); }
  /// Reads @p count bytes from @p offset. An earlier end of file is an error: the file has changed.
  [[nodiscard]] std::optional<Error> read(std::uint64_t offset, std::size_t count,
                                          std::string& bytes) const;
  /// The error to report if size or time differ from those at `open`.
  [[nodiscard]] std::optional<Error> changed() const;
  [[nodiscard]] std::uint64_t size() const { return size_; }

 private:
  std::string path_;
  zell::UniqueFd file_;
  std::uint64_t size_ = 0;
  Timestamp mtime_;
};

/// Reads all of the local file @p path, at most @p most bytes. Fails if it changes meanwhile.
[[nodiscard]] std::optional<Error> readWhole(const LocalPath& path, std::uint64_t most,
                                             std::string& content);

/// Writes a local file under a hidden name in the directory of its target. The destructor removes
/// an unfinished file, unless it was begun for resuming and is not empty.
class LocalWriter {
 public:
  using SharedDirectory = std::shared_ptr<const zell::UniqueFd>;

  LocalWriter() = default;
  ~LocalWriter();
  LocalWriter(const LocalWriter&) = delete;
  LocalWriter& operator=(const LocalWriter&) = delete;

  /// Starts writing @p path, which has a `top`. With @p resume, keeps the part that an earlier
  /// attempt left; `size` is its size.
  [[nodiscard]] std::optional<Error> begin(const LocalPath& path, bool resume);
  /// The same in the opened @p directory, which contains @p path; empty: opens it.
  [[nodiscard]] std::optional<Error> begin(const LocalPath& path, bool resume,
                                           SharedDirectory directory);
  [[nodiscard]] std::optional<Error> add(std::string_view bytes);
  /// Begins to write to the disk what was added, without waiting. So the last sync takes less time.
  void beginSync() const;
  /// Truncates the hidden file to @p size bytes.
  [[nodiscard]] std::optional<Error> cutTo(std::uint64_t size);
  [[nodiscard]] std::optional<Error> setAttributes(std::uint32_t mode, const Timestamp& mtime);
  /// Renames the file to its target, on disk when it returns.
  [[nodiscard]] std::optional<Error> finish();
  /// The same after the caller has synced the file system. The caller syncs the directory.
  [[nodiscard]] std::optional<Error> finishSynced();
  /// Removes the unfinished file.
  void discard();
  [[nodiscard]] std::uint64_t size() const { return size_; }
  [[nodiscard]] const LocalPath& path() const { return path_; }
  /// The unfinished file.
  [[nodiscard]] LocalPath hiddenPath() const;
  [[nodiscard]] int descriptor() const { return file_.get(); }
  /// The file system of the file.
  [[nodiscard]] dev_t device() const { return device_; }
  /// Contains the unfinished file. Empty before `begin` and after the file has its name.
  [[nodiscard]] const SharedDirectory& directory() const { return directory_; }

 private:
  [[nodiscard]] std::optional<Error> openPart();
  [[nodiscard]] std::optional<Error> finished(int error);

  LocalPath path_;
  std::string hidden_;         // the name of the unfinished file; the destructor needs no memory
  SharedDirectory directory_;  // that contains both files
  zell::UniqueFd file_;
  dev_t device_ = 0;
  bool unfinished_ = false;  // the hidden file exists
  bool resume_ = false;
  std::uint64_t size_ = 0;
};

/// Creates the symbolic link @p path to @p target and replaces an existing file or link, on disk
/// when it returns.
[[nodiscard]] std::optional<Error> makeLocalLink(const LocalPath& path, const std::string& target);

}  // namespace runel

#endif  // RUNEL_TRANSFER_LOCAL_FILE_H_
