// SPDX-License-Identifier: Apache-2.0
#ifndef ZELL_FILE_TREE_WALKER_H_
#define ZELL_FILE_TREE_WALKER_H_

#include <ostream>
#include <string>
#include <utility>

namespace zell {

/// The listing of a directory tree, ready to be printed.
class FileTreeWalker {
 public:
  explicit FileTreeWalker(std::string lines) : lines_(std::move(lines)) {}

  /// Writes one line for each entry, a directory before its contents: type letter, permission bits
  /// in four octal digits, uid, gid, size in bytes, modification time in seconds, path relative to
  /// the root of the walk (`.` for the root itself), and for a symbolic link ` -> ` and its target.
  void print(std::ostream& out) const;

  /// The text that `print` writes.
  [[nodiscard]] const std::string& lines() const { return lines_; }

 private:
  std::string lines_;
};

}  // namespace zell

#endif  // ZELL_FILE_TREE_WALKER_H_
