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

// Opens the part @p name that an earlier transfer of this user has left. Returns an invalid
// descriptor for anything else: what is written to a second name of a file, to a pipe or to another
// user's file ends up elsewhere.
zell::UniqueFd openLeftPart(int directory, const std::string& name, int flags) {
  zell::UniqueFd part(openat(directory, name.c_str(), flags | O_NONBLOCK));
  struct stat st {};
  const bool usable = part.valid() && fstat(part.get(), &st) == 0 && S_ISREG(st.st_mode) &&
                      st.st_nlink == 1 && st.st_uid == geteuid();
  return usable ? std::move(part) : zell::UniqueFd();
}

}  // namespace

Timestamp timestampOf(const timespec& time) {
  return {time.tv_sec, time.tv_nsec};
}

// Not blocking, so that a pipe in place of the file is an error and not a wait for its writer.
std::optional<Error> LocalReader::open(const LocalPath& path) {
  path_ = path.text;
  file_ = openLocal(path, O_NOCTTY | O_NONBLOCK);
  struct stat st {};
  if (!file_.valid() || fstat(file_.get(), &st) != 0) {
    return localPathError(path_, errno);
  }
  if (!S_ISREG(st.st_mode)) {
    return changedFile(Kind::local, path_);
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

std::optional<Error> readWhole(const LocalPath& path, std::uint64_t most, std::string& content) {
  LocalReader reader;
  std::optional<Error> error = reader.open(path);
  if (!error && reader.size() > most) {
    error = changedFile(Kind::local, path.text);
  }
  error = error ? error : reader.read(0, static_cast<std::size_t>(reader.size()), content);
  return error ? error : reader.changed();
}

std::optional<Error> LocalWriter::begin(const LocalPath& path, bool resume) {
  return begin(path, resume, nullptr);
}

// Keeps the directory open, so that the file is finished where it was begun.
std::optional<Error> LocalWriter::begin(const LocalPath& path, bool resume,
                                        SharedDirectory directory) {
  discard();
  path_ = path;
  resume_ = resume;
  size_ = 0;
  if (path.name == ".") {
    return Error::local(path.text, EISDIR);
  }
  if (!directory) {
    zell::UniqueFd opened = openLocalParent(path, 0);
    if (!opened.valid()) {
      return localPathError(path.text, errno);
    }
    directory = std::make_shared<zell::UniqueFd>(std::move(opened));
  }
  directory_ = std::move(directory);
  return openPart();
}

// Takes over the part of an earlier transfer also without resuming: while two transfers of one file
// overlap, both then write the same bytes to the same file.
std::optional<Error> LocalWriter::openPart() {
  hidden_ = partPath(baseName(path_.name));
  const int flags = O_WRONLY | O_NOFOLLOW | O_CLOEXEC | (resume_ ? O_APPEND : 0);
  file_ = openLeftPart(directory_->get(), hidden_, flags);
  if (!file_.valid()) {
    (void)unlinkat(directory_->get(), hidden_.c_str(), 0);  // openat() reports it if it stays
    file_.reset(openat(directory_->get(), hidden_.c_str(), flags | O_CREAT | O_EXCL, 0600));
  }
  unfinished_ = file_.valid();
  struct stat st {};
  if (!file_.valid() || fstat(file_.get(), &st) != 0) {
    return Error::local(path_.text, errno);
  }
  device_ = st.st_dev;
  size_ = static_cast<std::uint64_t>(st.st_size);
  return resume_ || size_ == 0 ? std::nullopt : cutTo(0);
}

std::optional<Error> LocalWriter::add(std::string_view bytes) {
  if (!writeToFile(file_.get(), bytes)) {
    return Error::local(path_.text, errno);
  }
  size_ += bytes.size();
  return std::nullopt;
}

void LocalWriter::beginSync() const {
  (void)sync_file_range(file_.get(), 0, 0, SYNC_FILE_RANGE_WRITE);  // the sync reports errors
}

std::optional<Error> LocalWriter::cutTo(std::uint64_t size) {
  if (ftruncate(file_.get(), static_cast<off_t>(size)) != 0) {
    return Error::local(path_.text, errno);
  }
  size_ = size;
  return std::nullopt;
}

std::optional<Error> LocalWriter::setAttributes(std::uint32_t mode, const Timestamp& mtime) {
  const timespec times[2] = {{0, UTIME_OMIT}, {mtime.seconds, mtime.nanoseconds}};
  // Drop the set-user-ID and set-group-ID bits: the owner is a different user here.
  return fchmod(file_.get(), mode & zell::kAccessBits) == 0 && futimens(file_.get(), times) == 0
             ? std::nullopt
             : std::make_optional(Error::local(path_.text, errno));
}

std::optional<Error> LocalWriter::finish() {
  const std::string name = baseName(path_.name);
  const zell::RenameResult result = zell::renameDurably(file_, directory_->get(), hidden_, name);
  unfinished_ = !result.renamed();
  return finished(result.error);
}

// Waits for nothing, but reports what a syncfs() before Linux 5.8 does not: that the content could
// not be written. Some file systems report it only on close.
std::optional<Error> LocalWriter::finishSynced() {
  constexpr unsigned kContent =
      SYNC_FILE_RANGE_WAIT_BEFORE | SYNC_FILE_RANGE_WRITE | SYNC_FILE_RANGE_WAIT_AFTER;
  if (sync_file_range(file_.get(), 0, 0, kContent) != 0 ||
      (::close(file_.release()) != 0 && errno != EINTR)) {
    return Error::local(path_.text, errno);
  }
  const std::string name = baseName(path_.name);
  unfinished_ = renameat(directory_->get(), hidden_.c_str(), directory_->get(), name.c_str()) != 0;
  return finished(unfinished_ ? errno : 0);
}

std::optional<Error> LocalWriter::finished(int error) {
  if (!unfinished_) {
    directory_.reset();
  }
  return error == 0 ? std::nullopt : std::make_optional(Error::local(path_.text, error));
}

LocalPath LocalWriter::hiddenPath() const {
  LocalPath hidden = path_;
  hidden.name = partPath(path_.name);
  return hidden;
}

LocalWriter::~LocalWriter() {
  if (!resume_ || size_ == 0) {
    discard();
  }
}

void LocalWriter::discard() {
  if (std::exchange(unfinished_, false)) {
    (void)unlinkat(directory_->get(), hidden_.c_str(), 0);  // no caller to report an error to
  }
  file_.reset();
  directory_.reset();
}

std::optional<Error> makeLocalLink(const LocalPath& path, const std::string& target) {
  const zell::UniqueFd directory = openLocalParent(path, 0);
  if (!directory.valid()) {
    return localPathError(path.text, errno);
  }
  const std::string name = baseName(path.name);
  const std::string hidden = partPath(name);
  // An earlier run may have left it. symlinkat() reports it if it stays.
  (void)unlinkat(directory.get(), hidden.c_str(), 0);
  if (symlinkat(target.c_str(), directory.get(), hidden.c_str()) != 0) {
    return Error::local(path.text, errno);
  }
  zell::UniqueFd none;
  const zell::RenameResult result = zell::renameDurably(none, directory.get(), hidden, name);
  if (!result.renamed()) {
    (void)unlinkat(directory.get(), hidden.c_str(), 0);  // report the first error
  }
  return result.error == 0 ? std::nullopt
                           : std::make_optional(Error::local(path.text, result.error));
}

}  // namespace runel
