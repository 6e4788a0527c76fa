// SPDX-License-Identifier: Apache-2.0
#include "zell/linux/file_place.h"

#include <cerrno>
#include <climits>

#include <fcntl.h>
#include <unistd.h>

namespace zell {
namespace {

constexpr int kMaxLinks = 40;  // the kernel's own limit

// The part of @p path before its last component, as a path that can be opened.
std::string folderOf(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  if (slash == std::string::npos) {
    return ".";
  }
  return slash == 0 ? "/" : path.substr(0, slash);
}

// Goes from the open folder of @p place (or from the current one) to where @p path leads, but does
// not follow its last component.
int step(const std::string& path, FilePlace& place) {
  const int from = place.folder.valid() ? place.folder.get() : AT_FDCWD;
  UniqueFd folder(openat(from, folderOf(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!folder.valid()) {
    return errno;
  }
  place.name = path.substr(path.rfind('/') + 1);  // npos + 1 is 0: the whole path
  place.folder = std::move(folder);
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
        readlinkat(place.folder.get(), place.name.c_str(), target, sizeof target);
    if (length < 0) {
      return errno == EINVAL || errno == ENOENT ? 0 : errno;  // no link, or nothing at all
    }
    next.assign(target, static_cast<std::size_t>(length));
  }
  return ELOOP;  // GCOVR_EXCL_LINE
}

int syncFolder(int fd) {
  // A file system whose folders cannot be synced says so with EINVAL; there is no more to be had.
  return fsync(fd) == 0 || errno == EINVAL ? 0 : errno;
}

}  // namespace zell
