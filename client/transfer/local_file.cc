// SPDX-License-Identifier: Apache-2.0
#include "client/transfer/local_file.h"

#include <cerrno>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/durable_rename.h"
#include "base/file_mode.h"
#include "client/core/paths.h"
#include "client/transfer/hidden_paths.h"
#include "client/transfer/parts.h"

namespace runel {
namespace {

// Returns false with errno on failure.
bool writeToFile(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t taken = write(fd, bytes.data(), bytes.size());
    if (taken < 0 && errno != EINTR) {
      return false;
    }
    bytes.remove_prefix(taken > 0 ? static_cast<std::size_t>(taken) : 0);
  }
  return true;
}

// Renames @p hidden, open as @p file unless it is a link, to @p path beside it.
zell::RenameResult renameTo(const std::string& path, const std::string& hidden,
                            zell::UniqueFd& file) {
  const zell::UniqueFd directory(
      open(directoryOf(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!directory.valid()) {
    return {zell::RenameStep::syncFile, errno};
  }
  return zell::renameDurably(file, directory.get(), baseName(hidden), baseName(path));
}

}  // namespace

Timestamp timestampOf(const timespec& time) {
  return {time.tv_sec, time.tv_nsec};
}

std::optional<Error> LocalReader::open(const std::string& path) {
  path_ = path;
  file_.reset(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY));
  struct stat st {};
  if (!file_.valid() || fstat(file_.get(), &st) != 0) {
    return Error::local(path, errno);
  }
  size_ = static_cast<std::uint64_t>(st.st_size);
  mtime_ = timestampOf(st.st_mtim);
  return std::nullopt;
}

std::optional<Error> LocalReader::read(std::uint64_t offset, std::size_t count,
                                       std::string& bytes) const {
  bytes.resize(count);
  std::size_t done = 0;
  while (done < count) {
    const ssize_t got =
        pread(file_.get(), bytes.data() + done, count - done, static_cast<off_t>(offset + done));
    if (got < 0 && errno != EINTR) {
      return Error::local(path_, errno);
    }
    if (got == 0) {
      return changedFile(Kind::local, path_);
    }
    done += got > 0 ? static_cast<std::size_t>(got) : 0;
  }
  return std::nullopt;
}

std::optional<Error> LocalReader::changed() const {
  struct stat st {};
  const bool same = fstat(file_.get(), &st) == 0 &&
                    static_cast<std::uint64_t>(st.st_size) == size_ &&
                    timestampOf(st.st_mtim) == mtime_;
  return same ? std::nullopt : std::make_optional(changedFile(Kind::local, path_));
}

std::optional<Error> readWhole(const std::string& path, std::uint64_t most, std::string& content) {
  LocalReader reader;
  std::optional<Error> error = reader.open(path);
  if (!error && reader.size() > most) {
    error = changedFile(Kind::local, path);
  }
  error = error ? error : reader.read(0, static_cast<std::size_t>(reader.size()), content);
  return error ? error : reader.changed();
}

std::optional<Error> LocalWriter::begin(const std::string& path, bool resume) {
  discard();
  path_ = path;
  resume_ = resume;
  hidden_ = partPath(path);
  const int flags = O_WRONLY | O_CREAT | O_CLOEXEC | O_NOFOLLOW | (resume ? O_APPEND : O_TRUNC);
  file_.reset(::open(hidden_.c_str(), flags, 0600));
  unfinished_ = file_.valid();
  struct stat st {};
  if (!file_.valid() || fstat(file_.get(), &st) != 0) {
    return Error::local(path_, errno);
  }
  size_ = static_cast<std::uint64_t>(st.st_size);
  return std::nullopt;
}

std::optional<Error> LocalWriter::add(std::string_view bytes) {
  if (!writeToFile(file_.get(), bytes)) {
    return Error::local(path_, errno);
  }
  size_ += bytes.size();
  return std::nullopt;
}

std::optional<Error> LocalWriter::cutTo(std::uint64_t size) {
  if (ftruncate(file_.get(), static_cast<off_t>(size)) != 0) {
    return Error::local(path_, errno);
  }
  size_ = size;
  return std::nullopt;
}

std::optional<Error> LocalWriter::finish(std::uint32_t mode, const Timestamp& mtime) {
  const timespec times[2] = {{0, UTIME_OMIT}, {mtime.seconds, mtime.nanoseconds}};
  // Drop the set-user-ID and set-group-ID bits: the owner is a different user here.
  if (fchmod(file_.get(), mode & zell::kAccessBits) != 0 || futimens(file_.get(), times) != 0) {
    return Error::local(path_, errno);
  }
  const zell::RenameResult result = renameTo(path_, hidden_, file_);
  unfinished_ = !result.renamed();
  return result.error == 0 ? std::nullopt : std::make_optional(Error::local(path_, result.error));
}

LocalWriter::~LocalWriter() {
  if (!resume_ || size_ == 0) {
    discard();
  }
}

void LocalWriter::discard() {
  if (std::exchange(unfinished_, false)) {
    (void)unlink(hidden_.c_str());  // no caller to report an error to
  }
  file_.reset();
}

bool isLocalDirectory(const std::string& path) {
  struct stat st {};
  return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

std::optional<Error> makeLocalDirectory(const std::string& path) {
  struct stat st {};
  if (mkdir(path.c_str(), 0700) == 0) {
    return std::nullopt;
  }
  const int number = errno;
  if (number == EEXIST && lstat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) {
    return std::nullopt;
  }
  return Error::local(path, number);
}

std::optional<Error> makeLocalLink(const std::string& path, const std::string& target) {
  const std::string hidden = partPath(path);
  (void)unlink(hidden.c_str());  // left by an earlier run; symlink() reports it if it stays
  if (symlink(target.c_str(), hidden.c_str()) != 0) {
    return Error::local(path, errno);
  }
  zell::UniqueFd none;
  const zell::RenameResult result = renameTo(path, hidden, none);
  if (!result.renamed()) {
    (void)unlink(hidden.c_str());  // report the first error
  }
  return result.error == 0 ? std::nullopt : std::make_optional(Error::local(path, result.error));
}

std::optional<Error> finishLocalDirectory(const std::string& path, std::uint32_t mode,
                                          const Timestamp& mtime) {
  const timespec times[2] = {{0, UTIME_OMIT}, {mtime.seconds, mtime.nanoseconds}};
  if (chmod(path.c_str(), mode & zell::kAccessBits) != 0 ||
      utimensat(AT_FDCWD, path.c_str(), times, 0) != 0) {
    return Error::local(path, errno);
  }
  return std::nullopt;
}

}  // namespace runel
