// SPDX-License-Identifier: Apache-2.0
#include <zell/file_tree_walker.h>

namespace zell {

void FileTreeWalker::print(std::ostream& out) const {
  out.write(lines_.data(), static_cast<std::streamsize>(lines_.size()));
}

}  // namespace zell
