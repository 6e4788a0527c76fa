// SPDX-License-Identifier: Apache-2.0
// What the stages of a pull share.
#ifndef RUNEL_TRANSFER_PULL_WORK_H_
#define RUNEL_TRANSFER_PULL_WORK_H_

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "client/core/path_filter.h"
#include "client/transfer/local_directory.h"
#include "client/transfer/stage.h"
#include "client/transfer/work.h"

namespace runel {

/// One file, directory or link to create on this host.
struct PullItem {
  std::string source;  ///< path on the device
  std::string name;    ///< local path, relative to the opened target
  std::string path;    ///< local path for messages
  Stat st;
  bool known = false;  ///< `st` comes from "stat"; that of walktree is not exact
  bool failed = false;
  bool grew = false;   ///< during the transfer: only its first `st.size` bytes were fetched
  std::string target;  ///< target of a symbolic link
};

using PullItems = std::vector<PullItem>;

/// Filled by the first stage, worked off by the others.
struct RUNEL_LOCAL PullWork : public TransferWork {
  PullWork(AsyncDevice& device, std::vector<std::string> from, std::string to,
           const TransferOptions& how, AsyncTransfer::Done done);

  /// Opens the local target, and creates it if it is a directory.
  [[nodiscard]] std::optional<Error> openTarget();
  /// Opens the local target as @p directory, and creates nothing: a missing one is an error.
  [[nodiscard]] std::optional<Error> openTargetForReading(LocalDirectory& directory) const;
  [[nodiscard]] LocalPath placeOf(const PullItem& item) const;

  void failItem(PullItem& item, const Error& error);
  /// Takes the answer to "stat" of @p item.
  static void takeStat(PullItem& item, const Reply& reply);
  /// Takes the answer to the "stat" before the content of the file @p item. Returns false if the
  /// file failed. Warns if it is shorter than announced.
  bool takeStatBefore(PullItem& item, const Reply& reply);
  /// Compares the size of the fetched content, @p came, with the answers to "stat" before and after
  /// it. Returns the error for a file that changed. A file that grew keeps its size before, with a
  /// warning.
  [[nodiscard]] std::optional<Error> checkStatAfter(PullItem& item, const Reply& reply,
                                                    std::uint64_t came);

  const std::vector<std::string> sources;
  PathFilter filter;       ///< what to leave out
  const std::string root;  ///< the local target
  const bool into;         ///< each source gets a name in `root`
  bool whole = false;      ///< the one source is a directory, and `root` its copy
  PullItems directories, links, small, large;

 private:
  const std::string named_;  // the target that the user named: `root` or its parent directory
  LocalDirectory target_;    // `root` if it is a directory, else its parent directory
};

using PullStage = StageOf<PullWork>;

/// The error for a file on the device that somebody changed during the transfer.
[[nodiscard]] Error changedThere(const PullItem& item);

}  // namespace runel

#endif  // RUNEL_TRANSFER_PULL_WORK_H_
