// SPDX-License-Identifier: Apache-2.0
// The walk behind FileTreeWalker.
#ifndef ZELL_LINUX_TREE_WALK_H_
#define ZELL_LINUX_TREE_WALK_H_

#include <cstddef>
#include <string>
#include <vector>

#include <sys/types.h>

#include "base/unique_fd.h"

struct stat;

namespace zell {

/// Writes down a folder tree. Neither its depth nor its width matters: it takes no stack, at most
/// some thirty descriptors, and the memory for the names of the folders it is in.
class TreeWalk {
 public:
  /// Walks the tree at @p path. False when that itself cannot be examined; `error` says why then.
  [[nodiscard]] bool run(const std::string& path);

  /// The first error on the way, an errno value; 0 for none. What vanishes during the walk is none.
  [[nodiscard]] int error() const { return error_; }
  /// The lines, as FileTreeWalker has them; a whole tree's unless `error` is EFBIG.
  [[nodiscard]] std::string& lines() { return lines_; }

 private:
  // A folder that the walk is in.
  struct Level {
    UniqueFd folder;  // none while the walk is far below
    dev_t device;
    ino_t inode;
    std::vector<std::string> names;
    std::size_t next;        // index of the next name
    std::size_t pathLength;  // of the folder, in path_
  };

  void enter(int from, const char* name, const struct stat& st);
  void leave();
  void visitNext();
  void visit(int folder, const std::string& name, std::size_t pathLength);
  bool addLine(int folder, const char* name, const struct stat& st);
  bool reopen(Level& level, int below);
  void note(int error) { error_ = error_ == 0 ? error : error_; }

  std::vector<Level> levels_;
  std::string path_;  // of the current entry, escaped
  std::string lines_;
  int error_ = 0;
};

}  // namespace zell

#endif  // ZELL_LINUX_TREE_WALK_H_
