// SPDX-License-Identifier: Apache-2.0
#include "device/common/um_state.h"

#include <algorithm>
#include <cerrno>

#include <fcntl.h>
#include <sys/stat.h>

#include "base/durable_rename.h"
#include "device/linux/file_io.h"
#include "device/linux/file_place.h"

namespace zell {
namespace {

const char* const kStore = RUNELD_STATE_DIR "/umstate";  // a build option
constexpr std::size_t kLongestKey = 255;
constexpr mode_t kDirectoryMode = 0755;

bool isKeyByte(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.' ||
         c == '_' || c == '-';
}

bool isKey(const std::string& key) {
  return !key.empty() && key.size() <= kLongestKey && key.front() != '.' &&
         std::all_of(key.begin(), key.end(), isKeyByte);
}

// Creates the directory @p path with these permissions, regardless of the umask, and syncs it.
int makeDirectory(const std::string& path) {
  if (mkdir(path.c_str(), kDirectoryMode) != 0) {
    return errno == EEXIST ? 0 : errno;
  }
  FilePlace place;
  if (const int error = findPlace(path, place)) {
    return error;
  }
  return chmod(path.c_str(), kDirectoryMode) == 0 ? syncDirectory(place.directory.get()) : errno;
}

// Creates @p path and its missing parents.
int makeDirectories(const std::string& path) {
  for (std::size_t end = path.find('/', 1);; end = path.find('/', end + 1)) {
    const int error = makeDirectory(path.substr(0, end));
    if (error != 0 || end == std::string::npos) {
      return error;
    }
  }
}

}  // namespace

int storeUmState(const std::string& key, std::string_view state) {
  if (!isKey(key)) {
    return EINVAL;
  }
  const std::string path = std::string(kStore) + '/' + key;
  const int error = replaceFile(path, state);
  if (error != ENOENT) {
    return error;
  }
  const int madeError = makeDirectories(kStore);
  return madeError != 0 ? madeError : replaceFile(path, state);
}

}  // namespace zell
