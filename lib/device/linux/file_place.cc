// SPDX-License-Identifier: Apache-2.0
#include "device/linux/file_place.h"

#include <cerrno>
#include <climits>

#include <fcntl.h>
#include <unistd.h>

namespace zell {
namespace {

constexpr int kMaxLinks = 40;  // the limit of the kernel

// The directory part of @p path, in a form that can be opened.
std::string directoryOf(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  if (slash == std::string::npos) {
    return ".";
  }
  return slash == 0 ? "/" : path.substr(0, slash);
}

// Resolves @p path relative to the open directory of @p place (or to the working directory),
// without following its last component.
int step(const std::string& path, FilePlace& place) {
  const int from = place.directory.valid() ? place.directory.get() : AT_FDCWD;
  UniqueFd directory(openat(from, directoryOf(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!directory.valid()) {
    return errno;
  }
  place.name = path.substr(path.rfind('/') + 1);  // npos + 1 is 0: the whole path
  place.directory = std::move(directory);
  return place.name.empty() || place.name == "." || place.name == ".." ? EISDIR : 0;
}

}  // namespace

int findPlace(const std::string& path, FilePlace& place) {
  if (path.empty()) {
    return ENOENT;
  }
  std::string next = path;
  for (int links = 0; links <= kMaxLinks; ++links) {
    if (const int error = step(next, place)) {
      return error;
    }
    char target[PATH_MAX];
    const ssize_t length =
        readlinkat(place.directory.get(), place.name.c_str(), target, sizeof target);
    if (length < 0) {
      return errno == EINVAL || errno == ENOENT ? 0 : errno;  // not a link, or missing
    }
    next.assign(target, static_cast<std::size_t>(length));
  }
  return ELOOP;  // GCOVR_EXCL_LINE
}

}  // namespace zell
