// SPDX-License-Identifier: Apache-2.0
#include "gateway/fleet/start_record.h"

#include <cerrno>
#include <cstdio>
#include <utility>

#include <fcntl.h>
#include <unistd.h>

#include "base/unique_fd.h"
#include "gateway/fleet/text.h"

namespace runelgw {
namespace {

constexpr std::size_t kLongest = 256;

// At most `kLongest` bytes of the file @p path; empty if it cannot be read.
std::string contentOf(const std::string& path) {
  const zell::UniqueFd file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
  std::string content(kLongest, '\0');
  const ssize_t count = file.valid() ? read(file.get(), content.data(), content.size()) : -1;
  content.resize(count > 0 ? static_cast<std::size_t>(count) : 0);
  return content;
}

std::string directoryOf(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  return slash == std::string::npos ? "." : path.substr(0, slash + 1);
}

// Makes the name of a file in the directory of @p path permanent, or its removal.
bool syncDirectory(const std::string& path) {
  const zell::UniqueFd directory(
      open(directoryOf(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  return directory.valid() && fsync(directory.get()) == 0;
}

bool writeFile(const std::string& path, const std::string& content) {
  const zell::UniqueFd file(
      open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0600));
  return file.valid() &&
         write(file.get(), content.data(), content.size()) ==
             static_cast<ssize_t>(content.size()) &&
         fsync(file.get()) == 0;
}

}  // namespace

StartRecord::StartRecord(std::string path, std::string bootId)
    : path_(std::move(path)), bootId_(std::move(bootId)) {}

// Empty if the boot is not known.
std::string StartRecord::content() const {
  const std::string boot = contentOf(bootId_);
  return boot.empty() ? boot : "ended in boot " + boot;
}

runel::Result<void> StartRecord::noteOrderlyEnd() const {
  const std::string now = content();
  if (now.empty()) {
    return runel::Error::local(bootId_, errno == 0 ? ENODATA : errno);
  }
  const std::string temporary = path_ + ".new";
  if (!writeFile(temporary, now) || rename(temporary.c_str(), path_.c_str()) != 0 ||
      !syncDirectory(path_)) {
    const int number = errno;
    unlink(temporary.c_str());
    return runel::Error::local(path_, number);
  }
  return {};
}

bool StartRecord::takeOrderlyEnd() const {
  const std::string noted = contentOf(path_);
  const bool removed = unlink(path_.c_str()) == 0;
  return removed && syncDirectory(path_) && !noted.empty() && noted == content();
}

}  // namespace runelgw
