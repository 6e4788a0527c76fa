// SPDX-License-Identifier: Apache-2.0
// What the stages of a push or sync share.
#ifndef RUNEL_TRANSFER_PUSH_WORK_H_
#define RUNEL_TRANSFER_PUSH_WORK_H_

#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "client/transfer/push/packing.h"
#include "client/transfer/push/piece_sizes.h"
#include "client/transfer/stage.h"
#include "client/transfer/work.h"

namespace runel {

/// One file, directory or link to create on the device.
struct PushItem {
  const LocalEntry* entry;
  std::string target;  ///< path on the device
  bool failed = false;
  bool complete = false;      ///< mode and time are set too
  std::optional<Stat> there;  ///< the existing target
};

using PushItems = std::vector<PushItem>;

/// Filled by the first stages, worked off by the others.
struct RUNEL_LOCAL PushWork : public TransferWork {
  PushWork(AsyncDevice& device, PushSources from, std::string to, const TransferOptions& options,
           AsyncTransfer::Done done)
      : TransferWork(device, options, std::move(done)),
        sources(std::move(from)),
        root(std::move(to)),
        pieces(this->options().memory()),
        packing(this->options().compression() != nullptr, this->options().compressesOnAnyLine()) {}

  [[nodiscard]] const std::vector<LocalSource>& files() const { return filesOf(sources); }
  [[nodiscard]] const PathFilter& filter() const { return filterOf(sources); }
  /// The files that did not fail.
  [[nodiscard]] std::vector<PushItem*> sentFiles();
  void failItem(PushItem& item, const Error& error);

  const PushSources sources;
  const std::string root;  ///< the target, as the caller gave it
  /// For a single file: what is at `root` itself, if that is known.
  std::optional<std::optional<Stat>> rootItself;
  PushItems directories, links, small, large;
  std::set<std::string> newDirectories;  ///< missing on the device at the beginning
  /// For a sync: the equal files and directories whose mode differs, the equal files whose time
  /// differs, and whether the entries of any directory change.
  PushItems modeOnly, timeOnly;
  bool directoriesChange = true;
  PieceSizes pieces;                ///< of the large files
  Packing packing;                  ///< of the large files
  std::string mounts;               ///< /proc/self/mountinfo of the device
  std::vector<std::string> others;  ///< for a sync: to remove, relative to the target
  std::vector<TreeEntry> removals;  ///< all that `others` removes, with the entries of directories
};

using PushStage = StageOf<PushWork>;

}  // namespace runel

#endif  // RUNEL_TRANSFER_PUSH_WORK_H_
