// SPDX-License-Identifier: Apache-2.0
// The names of unfinished files and directories. They depend only on the target, so that the next
// transfer of the same target finds what an interrupted one has left.
#ifndef RUNEL_TRANSFER_HIDDEN_PATHS_H_
#define RUNEL_TRANSFER_HIDDEN_PATHS_H_

#include <string>

namespace runel {

/// The path of the part of the target @p path, in the same directory. The name has a fixed length.
[[nodiscard]] std::string partPath(const std::string& path);

/// The path of a directory for the part of the target @p path, in the same directory.
[[nodiscard]] std::string partDirectoryPath(const std::string& path);

/// The path of a directory for unpacking archives, in the directory of the target @p path.
[[nodiscard]] std::string stagingPath(const std::string& path);

}  // namespace runel

#endif  // RUNEL_TRANSFER_HIDDEN_PATHS_H_
