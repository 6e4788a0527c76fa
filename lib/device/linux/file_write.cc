// SPDX-License-Identifier: Apache-2.0
#include <cerrno>

#include <fcntl.h>
#include <sys/stat.h>

#include "device/linux/file_io.h"
#include "device/linux/file_place.h"
#include "device/linux/paths.h"
#include "device/linux/temporary_file.h"

namespace zell {
namespace {

// The result of an attempt to replace a file: the error, and whether to write in place instead.
struct Attempt {
  int error;
  bool inPlace;
};

bool refusesNewFiles(int error) {
  return error == EACCES || error == EPERM || error == EROFS;
}

// The kernel's directories (/proc) accept no new files and report ENOENT.
bool refusesTemporaryFile(int error) {
  return refusesNewFiles(error) || error == ENOENT;
}

// Checks whether the file at @p place is the one that @p st describes. Returns ENOENT when it is
// not: the kernel resolves links such as /proc/self/fd/1 to more than their text.
int lookAt(const FilePlace& place, const struct stat& st) {
  struct stat there {};
  if (fstatat(place.directory.get(), place.name.c_str(), &there, AT_SYMLINK_NOFOLLOW) != 0) {
    return errno;
  }
  return there.st_dev == st.st_dev && there.st_ino == st.st_ino ? 0 : ENOENT;
}

Attempt replaceAt(const FilePlace& place, const struct stat* old, std::string_view data) {
  TemporaryFile replacement(place);
  if (const int error = replacement.make(old)) {
    return {error, refusesTemporaryFile(error)};
  }
  if (const int error = replacement.fill(data)) {
    return {error, false};
  }
  const RenameResult moved = replacement.move();
  return {moved.error, moved.step == RenameStep::rename && moved.error == EBUSY};
}

// @p old is null when the file does not exist yet.
Attempt replace(const std::string& path, const struct stat* old, std::string_view data) {
  FilePlace place;
  int error = findPlace(path, place);
  if (error == 0 && old != nullptr) {
    error = lookAt(place, *old);
  }
  if (error != 0) {
    return {error, error == ENOENT || refusesNewFiles(error)};
  }
  return replaceAt(place, old, data);
}

}  // namespace

int replaceFile(const std::string& path, std::string_view data) {
  if (hasZeroByte(path)) {
    return EINVAL;
  }
  struct stat old {};
  const bool exists = ::stat(path.c_str(), &old) == 0;
  if (!exists && errno != ENOENT) {
    return errno;
  }
  if (exists && S_ISDIR(old.st_mode)) {
    return EISDIR;
  }
  if (exists && !S_ISREG(old.st_mode)) {
    return overwriteFile(path.c_str(), data);
  }
  const Attempt attempt = replace(path, exists ? &old : nullptr, data);
  return exists && attempt.inPlace ? overwriteFile(path.c_str(), data) : attempt.error;
}

}  // namespace zell
