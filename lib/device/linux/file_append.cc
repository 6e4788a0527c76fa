// SPDX-License-Identifier: Apache-2.0
#include <cerrno>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/durable_rename.h"
#include "base/unique_fd.h"
#include "device/linux/file_io.h"
#include "device/linux/file_place.h"
#include "device/linux/paths.h"

namespace zell {
namespace {

constexpr int kNewFileMode = 0666;

int appendTo(int file, std::string_view data) {
  struct stat st {};
  if (fstat(file, &st) != 0) {
    return errno;
  }
  int error = writeAll(file, data);
  if (!S_ISREG(st.st_mode)) {
    return error;
  }
  if (error == 0 && fsync(file) != 0) {
    error = errno;
  }
  if (error != 0 && ftruncate(file, st.st_size) == 0) {
    (void)fsync(file);  // report the first error
  }
  return error;
}

int appendToNewFile(const std::string& path, std::string_view data) {
  FilePlace place;
  if (const int error = findPlace(path, place)) {
    return error;
  }
  constexpr int kFlags = O_WRONLY | O_APPEND | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
  const int directory = place.directory.get();
  const UniqueFd file(openat(directory, place.name.c_str(), kFlags, kNewFileMode));
  if (!file.valid()) {
    return errno;
  }
  int error = appendTo(file.get(), data);
  if (error == 0) {
    error = syncDirectory(directory);
  }
  if (error != 0) {
    (void)unlinkat(directory, place.name.c_str(), 0);  // the file did not exist before
  }
  return error;
}

}  // namespace

int appendToFile(const std::string& path, std::string_view data) {
  if (hasZeroByte(path)) {
    return EINVAL;
  }
  const UniqueFd file(open(path.c_str(), O_WRONLY | O_APPEND | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  if (file.valid()) {
    return appendTo(file.get(), data);
  }
  return errno == ENOENT ? appendToNewFile(path, data) : errno;
}

}  // namespace zell
