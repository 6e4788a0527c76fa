// SPDX-License-Identifier: Apache-2.0
#include "base/durable_rename.h"

#include <cerrno>
#include <cstdio>

#include <unistd.h>

namespace zell {
namespace {

int syncAndClose(UniqueFd& file) {
  if (fsync(file.get()) != 0) {
    return errno;
  }
  // Some file systems report a failed write only on close.
  return ::close(file.release()) == 0 || errno == EINTR ? 0 : errno;
}

}  // namespace

RenameResult renameDurably(UniqueFd& file, int directory, const std::string& from,
                           const std::string& to) {
  if (const int error = file.valid() ? syncAndClose(file) : 0) {
    return {RenameStep::syncFile, error};
  }
  if (renameat(directory, from.c_str(), directory, to.c_str()) != 0) {
    return {RenameStep::rename, errno};
  }
  if (const int error = syncDirectory(directory)) {
    return {RenameStep::syncDirectory, error};
  }
  return {RenameStep::done, 0};
}

int syncDirectory(int fd) {
  // EINVAL: the file system cannot sync directories. That is not an error here.
  return fsync(fd) == 0 || errno == EINVAL ? 0 : errno;
}

}  // namespace zell
