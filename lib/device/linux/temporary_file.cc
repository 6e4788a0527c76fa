// SPDX-License-Identifier: Apache-2.0
#include "device/linux/temporary_file.h"

#include <cerrno>
#include <cinttypes>
#include <cstdint>
#include <cstdio>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/file_mode.h"
#include "device/linux/file_io.h"

namespace zell {
namespace {

constexpr int kTries = 8;

// A name of fixed length, so that a file with a name of 255 bytes can be replaced too. The name
// depends on @p target alone: the next replacement of the same file removes what a power cut leaves
// behind.
std::string temporaryName(const std::string& target, int salt) {
  std::uint64_t hash = 14695981039346656037U;  // FNV-1a
  for (const char c : target + static_cast<char>(salt)) {
    hash = (hash ^ static_cast<unsigned char>(c)) * 1099511628211U;
  }
  char name[32];
  std::snprintf(name, sizeof name, ".runeld-%016" PRIx64, hash);
  return name;
}

}  // namespace

TemporaryFile::~TemporaryFile() {
  if (!name_.empty()) {
    const int saved = errno;
    (void)unlinkat(place_.directory.get(), name_.c_str(), 0);  // a failure leaves the file behind
    errno = saved;
  }
}

int TemporaryFile::open(int mode) {
  for (int salt = 0; salt < kTries; ++salt) {
    const std::string name = temporaryName(place_.name, salt);
    const int directory = place_.directory.get();
    constexpr int kFlags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
    file_.reset(openat(directory, name.c_str(), kFlags, mode));
    if (!file_.valid() && errno == EEXIST && unlinkat(directory, name.c_str(), 0) == 0) {
      file_.reset(openat(directory, name.c_str(), kFlags, mode));
    }
    if (file_.valid()) {
      name_ = name;
      return 0;
    }
    if (errno != EEXIST && errno != EISDIR) {
      return errno;
    }
  }
  return EEXIST;
}

int TemporaryFile::make(const struct stat* old) {
  if (old == nullptr) {
    return open(0666);
  }
  if (const int error = open(0600)) {  // stays private until it has the right owner
    return error;
  }
  // Set the owner first, because a change of owner clears the set-id bits.
  if (fchown(file_.get(), old->st_uid, old->st_gid) != 0 ||
      fchmod(file_.get(), old->st_mode & kPermissionBits) != 0) {
    return errno;
  }
  return 0;
}

int TemporaryFile::fill(std::string_view data) {
  return writeAll(file_.get(), data);
}

RenameResult TemporaryFile::move() {
  const RenameResult result = renameDurably(file_, place_.directory.get(), name_, place_.name);
  if (result.renamed()) {
    name_.clear();
  }
  return result;
}

}  // namespace zell
