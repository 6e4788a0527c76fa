// SPDX-License-Identifier: Apache-2.0
// Finishes many small local files together. To sync each file and its directory takes most of the
// time of a pull on a disk; one sync of the file system for many files takes little.
#ifndef RUNEL_TRANSFER_LOCAL_BATCH_H_
#define RUNEL_TRANSFER_LOCAL_BATCH_H_

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include <sys/types.h>

#include <runel/error.h>
#include <runel/records.h>

#include "client/transfer/local_directory.h"
#include "client/transfer/local_file.h"

namespace runel {

/// Writes files under hidden names, syncs many of them at once, and then gives them their names.
/// The destructor removes those that have no name yet.
class LocalBatch {
 public:
  /// Gets the error of a file, or nothing when the file has its name.
  using Finished = std::function<void(const std::optional<Error>& error)>;

  LocalBatch();

  /// Writes the file @p path with @p content. Calls @p finished now or in a later call.
  void write(const LocalPath& path, std::string_view content, std::uint32_t mode,
             const Timestamp& mtime, Finished finished);
  /// Gives all files their names. They and their directories are on disk when it returns. Returns
  /// the error of the directories.
  [[nodiscard]] std::optional<Error> finish();

 private:
  using Clock = std::chrono::steady_clock;

  struct File {
    std::unique_ptr<LocalWriter> writer;
    Finished finished;
  };
  // A directory that is not synced since the last rename in its file system.
  struct Renamed {
    LocalWriter::SharedDirectory directory;
    std::string text;  // a path in it for messages
  };

  [[nodiscard]] std::optional<Error> begin(LocalWriter& writer, const LocalPath& path);
  [[nodiscard]] std::optional<Error> beginHere(LocalWriter& writer, const LocalPath& path);
  [[nodiscard]] bool isFull() const;
  void nameAll();
  [[nodiscard]] bool syncFileSystems();

  const std::size_t mostFiles_;
  std::vector<File> files_;
  std::set<std::string> names_;  // of `files_`, and their hidden names
  std::uint64_t bytes_ = 0;
  Clock::time_point begun_;
  std::map<std::string, LocalWriter::SharedDirectory> directories_;  // those of `files_`
  std::map<dev_t, Renamed> renamed_;
};

}  // namespace runel

#endif  // RUNEL_TRANSFER_LOCAL_BATCH_H_
