// SPDX-License-Identifier: Apache-2.0
#include "client/transfer/hidden_paths.h"

#include "client/core/paths.h"
#include "client/core/sha256.h"

namespace runel {
namespace {

std::string hiddenName(const std::string& of, const std::string& ending) {
  constexpr std::size_t kDigits = 16;
  Sha256 hash;
  hash.add(of);
  return ".runelctl-" + hash.finish().substr(0, kDigits) + ending;
}

std::string hiddenPath(const std::string& path, const std::string& ending) {
  const std::string name = hiddenName(baseName(path), ending);
  return path.find('/') == std::string::npos ? name : joinPath(directoryOf(path), name);
}

}  // namespace

std::string partPath(const std::string& path) {
  return hiddenPath(path, ".part");
}

std::string partDirectoryPath(const std::string& path) {
  return hiddenPath(path, ".part.d");
}

std::string stagingPath(const std::string& path) {
  const std::string directory = directoryOf(path);
  return joinPath(directory, hiddenName(directory, ".d"));
}

}  // namespace runel
