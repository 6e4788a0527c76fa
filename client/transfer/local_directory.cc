// SPDX-License-Identifier: Apache-2.0
#include "client/transfer/local_directory.h"

#include <cerrno>
#include <cstddef>
#include <utility>

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "base/file_mode.h"
#include "client/core/paths.h"

namespace runel {
namespace {

constexpr int kEnterDirectory = O_PATH | O_DIRECTORY | O_CLOEXEC;
constexpr mode_t kPrivateDirectory = 0700;

// The system call, because the C library of many systems has no function for it. Unlike open(), it
// does not add O_LARGEFILE on a 32-bit system, and rejects that flag beside O_PATH.
int openBeneath(int top, const std::string& relative, int flags) {
  open_how how{};
  how.flags = static_cast<std::uint64_t>((flags & O_PATH) != 0 ? flags : flags | O_LARGEFILE);
  how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS;
  return static_cast<int>(syscall(SYS_openat2, top, relative.c_str(), &how, sizeof how));
}

// ENOSYS: a kernel before 5.6. EPERM: a filter of system calls that does not know this one; if it
// is an error of the file, the walk gets it too. EAGAIN: a rename elsewhere interfered.
bool needsWalk(int number) {
  return number == ENOSYS || number == EPERM || number == EAGAIN;
}

bool isLinkIn(int directory, const std::string& name) {
  struct stat st {};
  return fstatat(directory, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISLNK(st.st_mode);
}

// A link is ENOTDIR with O_DIRECTORY, but ELOOP for openat2().
zell::UniqueFd openComponent(int directory, const std::string& name, int flags) {
  zell::UniqueFd opened(openat(directory, name.c_str(), flags | O_NOFOLLOW | O_CLOEXEC));
  if (!opened.valid() && errno == ENOTDIR) {
    errno = isLinkIn(directory, name) ? ELOOP : ENOTDIR;
  }
  return opened;
}

// What openat2() does, for systems without it.
zell::UniqueFd walkTo(int top, std::string_view relative, int flags) {
  zell::UniqueFd directory;
  int from = top;
  for (std::size_t slash = relative.find('/'); slash != std::string_view::npos;
       slash = relative.find('/')) {
    directory = openComponent(from, std::string(relative.substr(0, slash)), kEnterDirectory);
    if (!directory.valid()) {
      return directory;
    }
    from = directory.get();
    relative.remove_prefix(slash + 1);
  }
  return openComponent(from, std::string(relative), flags);
}

}  // namespace

bool staysBelow(std::string_view relative) {
  if (relative == ".") {
    return true;
  }
  while (true) {
    const std::size_t slash = relative.find('/');
    const std::string_view part = relative.substr(0, slash);
    if (part.empty() || part == "." || part == ".." || part.find('\0') != std::string_view::npos) {
      return false;
    }
    if (slash == std::string_view::npos) {
      return true;
    }
    relative.remove_prefix(slash + 1);
  }
}

std::optional<Error> LocalDirectory::open(const std::string& path) {
  directory_.reset(::open(path.c_str(), kEnterDirectory));
  return directory_.valid() ? std::nullopt : std::make_optional(Error::local(path, errno));
}

std::optional<Error> LocalDirectory::create(const std::string& path) {
  if (!isLocalDirectory(path) && mkdir(path.c_str(), kPrivateDirectory) != 0) {
    const int number = errno;
    if (number != EEXIST || !isLocalDirectory(path)) {
      return Error::local(path, number);
    }
  }
  return open(path);
}

std::optional<Error> LocalDirectory::createBelow(const LocalDirectory& top, const std::string& name,
                                                 const std::string& text) {
  if (auto error = makeLocalDirectory({&top, name, text})) {
    return error;
  }
  return openIn(top, name, text);
}

std::optional<Error> LocalDirectory::openIn(const LocalDirectory& top, const std::string& name,
                                            const std::string& text) {
  directory_ = top.openBelow(name, kEnterDirectory);
  return directory_.valid() ? std::nullopt : std::make_optional(localPathError(text, errno));
}

zell::UniqueFd LocalDirectory::openBelow(const std::string& relative, int flags) const {
  if (!staysBelow(relative)) {
    errno = EINVAL;
    return {};
  }
  zell::UniqueFd opened(openBeneath(directory_.get(), relative, flags | O_CLOEXEC));
  if (!opened.valid() && needsWalk(errno)) {
    return walkTo(directory_.get(), relative, flags);
  }
  return opened;
}

zell::UniqueFd openLocal(const LocalPath& path, int flags) {
  if (path.top != nullptr) {
    return path.top->openBelow(path.name, O_RDONLY | flags);
  }
  const int follow = path.namedLink ? 0 : O_NOFOLLOW;
  return zell::UniqueFd(open(path.name.c_str(), O_RDONLY | flags | follow | O_CLOEXEC));
}

zell::UniqueFd openLocalParent(const LocalPath& path, int flags) {
  if (!staysBelow(path.name)) {
    errno = EINVAL;
    return {};
  }
  return path.top->openBelow(directoryOf(path.name), flags | O_DIRECTORY);
}

Error localPathError(const std::string& text, int number) {
  return number == ELOOP
             ? Error(Kind::local, Cause::outside, text + ": a symbolic link is in the path", number)
             : Error::local(text, number);
}

bool isLocalDirectory(const std::string& path) {
  struct stat st {};
  return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

Result<std::optional<Stat>> lookAtLocal(const LocalPath& path) {
  const zell::UniqueFd parent = openLocalParent(path, O_PATH);
  struct stat st {};
  if (!parent.valid() ||
      fstatat(parent.get(), baseName(path.name).c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
    return errno == ENOENT ? Result<std::optional<Stat>>(std::nullopt)
                           : localPathError(path.text, errno);
  }
  Stat found;
  found.mode = st.st_mode;
  found.size = static_cast<std::uint64_t>(st.st_size);
  return std::make_optional(found);
}

std::optional<Error> makeLocalDirectory(const LocalPath& path) {
  if (path.name == ".") {
    return std::nullopt;
  }
  const zell::UniqueFd parent = openLocalParent(path, O_PATH);
  if (!parent.valid()) {
    return localPathError(path.text, errno);
  }
  const std::string name = baseName(path.name);
  struct stat st {};
  if (mkdirat(parent.get(), name.c_str(), kPrivateDirectory) == 0) {
    return std::nullopt;
  }
  const int number = errno;
  if (number == EEXIST && fstatat(parent.get(), name.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0 &&
      S_ISDIR(st.st_mode)) {
    return std::nullopt;
  }
  return Error::local(path.text, number);
}

std::optional<Error> finishLocalDirectory(const LocalPath& path, std::uint32_t mode,
                                          const Timestamp& mtime) {
  const timespec times[2] = {{0, UTIME_OMIT}, {mtime.seconds, mtime.nanoseconds}};
  const zell::UniqueFd directory = openLocal(path, O_DIRECTORY);
  if (!directory.valid()) {
    return localPathError(path.text, errno);
  }
  if (fchmod(directory.get(), mode & zell::kAccessBits) != 0 ||
      futimens(directory.get(), times) != 0) {
    return Error::local(path.text, errno);
  }
  return std::nullopt;
}

}  // namespace runel
