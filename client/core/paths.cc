// SPDX-License-Identifier: Apache-2.0
#include "client/core/paths.h"

#include <cstddef>

namespace runel {

std::string joinPath(const std::string& directory, const std::string& name) {
  if (directory.empty() || (!name.empty() && name[0] == '/')) {
    return name;
  }
  if (name.empty() || name == ".") {
    return directory;
  }
  return directory.back() == '/' ? directory + name : directory + "/" + name;
}

std::string baseName(const std::string& path) {
  const std::size_t end = path.find_last_not_of('/');
  if (end == std::string::npos) {
    return path.empty() ? "" : "/";
  }
  const std::size_t slash = path.rfind('/', end);
  const std::size_t begin = slash == std::string::npos ? 0 : slash + 1;
  return path.substr(begin, end + 1 - begin);
}

std::string directoryOf(const std::string& path) {
  const std::size_t end = path.find_last_not_of('/');
  const std::size_t slash = end == std::string::npos ? end : path.rfind('/', end);
  if (end == std::string::npos || slash == std::string::npos) {
    return path.empty() || path[0] != '/' ? "." : "/";
  }
  const std::size_t last = path.find_last_not_of('/', slash);
  return last == std::string::npos ? "/" : path.substr(0, last + 1);
}

}  // namespace runel
