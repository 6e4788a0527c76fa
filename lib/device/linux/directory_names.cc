// SPDX-License-Identifier: Apache-2.0
#include "device/linux/directory_names.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>

#include <dirent.h>
#include <fcntl.h>

#include "base/unique_fd.h"
#include "device/linux/paths.h"

namespace zell {
namespace {

bool isDotOrDotDot(const char* name) {
  return std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0;
}

// Extracts the names from the first @p length bytes of @p buffer, as getdents64 filled it.
void addNames(const char* buffer, std::size_t length, std::vector<std::string>& names) {
  for (std::size_t at = 0; at < length;) {
    const auto* entry = reinterpret_cast<const dirent64*>(buffer + at);
    if (!isDotOrDotDot(entry->d_name)) {
      names.emplace_back(entry->d_name);
    }
    at += entry->d_reclen;
  }
}

}  // namespace

int readNames(int fd, std::vector<std::string>& names) {
  alignas(dirent64) char buffer[32768];
  const auto before = static_cast<std::ptrdiff_t>(names.size());
  for (;;) {
    const ssize_t length = getdents64(fd, reinterpret_cast<dirent64*>(buffer), sizeof buffer);
    if (length < 0) {
      return errno;
    }
    if (length == 0) {
      std::sort(names.begin() + before, names.end());
      return 0;
    }
    addNames(buffer, static_cast<std::size_t>(length), names);
  }
}

int readNames(const std::string& path, std::vector<std::string>& names) {
  if (hasZeroByte(path)) {
    return EINVAL;
  }
  const UniqueFd directory(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!directory.valid()) {
    return errno;
  }
  std::vector<std::string> found;
  const int error = readNames(directory.get(), found);
  if (error == 0) {
    std::move(found.begin(), found.end(), std::back_inserter(names));
  }
  return error;
}

}  // namespace zell
