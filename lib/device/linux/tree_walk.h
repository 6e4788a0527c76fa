// SPDX-License-Identifier: Apache-2.0
// The implementation of the walk for FileTreeWalker.
#ifndef ZELL_DEVICE_LINUX_TREE_WALK_H_
#define ZELL_DEVICE_LINUX_TREE_WALK_H_

#include <cstddef>
#include <string>
#include <vector>

#include <sys/types.h>

#include "base/unique_fd.h"

struct stat;

namespace zell {

/// Lists a directory tree of any depth and width. Does not recurse, uses at most about thirty
/// descriptors, and keeps only the names of the directories on the current path in memory.
class TreeWalk {
 public:
  /// Walks the tree at @p path. Returns false when @p path cannot be examined; see `error`.
  [[nodiscard]] bool run(const std::string& path);

  /// The first error of the walk, an errno value; 0 for none. Entries that vanish meanwhile are not
  /// errors.
  [[nodiscard]] int error() const { return error_; }
  /// The lines in the format of FileTreeWalker. Complete unless `error` is EFBIG.
  [[nodiscard]] std::string& lines() { return lines_; }

 private:
  // A directory on the current path.
  struct Level {
    UniqueFd directory;  // closed while the walk is far below
    dev_t device;
    ino_t inode;
    std::vector<std::string> names;
    std::size_t next;        // index of the next name
    std::size_t pathLength;  // length of the directory's path in path_
  };

  void enter(int from, const char* name, const struct stat& st);
  void leave();
  void visitNext();
  void visit(int directory, const std::string& name, std::size_t pathLength);
  bool addLine(int directory, const char* name, const struct stat& st);
  bool reopen(Level& level, int below);
  void note(int error) { error_ = error_ == 0 ? error : error_; }

  std::vector<Level> levels_;
  std::string path_;  // path of the current entry, escaped
  std::string lines_;
  int error_ = 0;
};

}  // namespace zell

#endif  // ZELL_DEVICE_LINUX_TREE_WALK_H_
