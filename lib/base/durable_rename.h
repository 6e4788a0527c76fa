// SPDX-License-Identifier: Apache-2.0
// Gives a new file its final name, so that after a power cut the name has the old or the new
// content.
#ifndef ZELL_BASE_DURABLE_RENAME_H_
#define ZELL_BASE_DURABLE_RENAME_H_

#include <string>

#include "base/unique_fd.h"

namespace zell {

/// The steps of `renameDurably`, in their order.
enum class RenameStep { syncFile, rename, syncDirectory, done };

/// The step that failed and its errno value, or `done` and 0.
struct RenameResult {
  RenameStep step;
  int error;

  /// Whether the file has its new name.
  [[nodiscard]] bool renamed() const { return step > RenameStep::rename; }
};

/// Syncs the content of @p file to disk, closes it, renames @p from to @p to in @p directory, and
/// syncs the directory. @p file is open as @p from; it stays open when its content cannot be
/// synced. It is invalid for a symbolic link, which has no content to sync.
[[nodiscard]] RenameResult renameDurably(UniqueFd& file, int directory, const std::string& from,
                                         const std::string& to);

/// Syncs the directory @p fd with all its entries to disk. Returns 0 or an errno value.
[[nodiscard]] int syncDirectory(int fd);

}  // namespace zell

#endif  // ZELL_BASE_DURABLE_RENAME_H_
