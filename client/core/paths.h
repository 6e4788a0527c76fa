// SPDX-License-Identifier: Apache-2.0
// Paths as texts.
#ifndef RUNEL_CORE_PATHS_H_
#define RUNEL_CORE_PATHS_H_

#include <string>

namespace runel {

/// @p name relative to @p directory; an absolute @p name unchanged.
[[nodiscard]] std::string joinPath(const std::string& directory, const std::string& name);
/// The last component of @p path, and its parent directory ("." without a slash, "/" for the root).
[[nodiscard]] std::string baseName(const std::string& path);
[[nodiscard]] std::string directoryOf(const std::string& path);

}  // namespace runel

#endif  // RUNEL_CORE_PATHS_H_
