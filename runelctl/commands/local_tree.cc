// SPDX-License-Identifier: Apache-2.0
#include "commands/local_tree.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <memory>
#include <utility>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "client/core/sha256.h"
#include "output/style.h"

#include "output/mode_text.h"

namespace runelctl {
namespace {

constexpr std::size_t kPart = 1048576;
constexpr std::size_t kHashDigits = 16;

runel::Timestamp momentOf(const timespec& time) {
  return {time.tv_sec, time.tv_nsec};
}

bool readLink(const std::string& path, std::string& target) {
  target.resize(4096);
  const ssize_t length = readlink(path.c_str(), target.data(), target.size());
  target.resize(length < 0 ? 0 : static_cast<std::size_t>(length));
  return length >= 0;
}

struct CloseDirectory {
  void operator()(DIR* directory) const { (void)closedir(directory); }
};

bool namesIn(const std::string& directory, std::vector<std::string>& names) {
  const std::unique_ptr<DIR, CloseDirectory> open(opendir(directory.c_str()));
  if (!open) {
    return false;
  }
  while (const dirent* entry = readdir(open.get())) {
    const std::string name = entry->d_name;
    if (name != "." && name != "..") {
      names.push_back(name);
    }
  }
  std::sort(names.begin(), names.end());
  return true;
}

LocalEntry entryOf(const std::string& path, const std::string& relative, const struct stat& st) {
  return {typeLetter(st.st_mode),
          path,
          relative,
          "",
          st.st_mode & 07777U,
          S_ISREG(st.st_mode) ? static_cast<std::uint64_t>(st.st_size) : 0,
          momentOf(st.st_mtim)};
}

// Depth first, with a list instead of recursion: trees may be deep.
class Scan {
 public:
  Scan(LocalSource& source, std::vector<std::string>& left) : source_(source), left_(left) {}

  std::optional<Error> run(LocalEntry top) {
    todo_.push_back(std::move(top));
    while (!todo_.empty()) {
      const LocalEntry entry = std::move(todo_.back());
      todo_.pop_back();
      source_.entries.push_back(entry);
      if (entry.type == 'd' && !open(entry)) {
        return localError(entry.path, errno);
      }
    }
    return std::nullopt;
  }

 private:
  bool open(const LocalEntry& directory) {
    std::vector<std::string> names;
    if (!namesIn(directory.path, names)) {
      return false;
    }
    for (auto name = names.rbegin(); name != names.rend(); ++name) {
      add(runel::joinPath(directory.path, *name),
          directory.relative.empty() ? *name : directory.relative + "/" + *name);
    }
    return true;
  }

  void add(const std::string& path, const std::string& relative) {
    struct stat st {};
    if (lstat(path.c_str(), &st) != 0) {
      left_.push_back(path);  // removed since its directory was read
      return;
    }
    LocalEntry entry = entryOf(path, relative, st);
    const bool sendable = entry.type == '-' || entry.type == 'd' ||
                          (entry.type == 'l' && readLink(path, entry.target));
    if (sendable) {
      todo_.push_back(std::move(entry));
    } else {
      left_.push_back(path);
    }
  }

  LocalSource& source_;
  std::vector<std::string>& left_;
  std::vector<LocalEntry> todo_;
};

}  // namespace

std::optional<Error> scanLocal(const std::string& path, bool recursive, LocalSource& source,
                               std::vector<std::string>& left) {
  struct stat st {};
  if (stat(path.c_str(), &st) != 0) {
    return localError(path, errno);
  }
  if (S_ISDIR(st.st_mode) && !recursive) {
    return Error{Fault::local, path + ": " + runel::systemText(EISDIR), "use -r for directories",
                 EISDIR};
  }
  if (!S_ISDIR(st.st_mode) && !S_ISREG(st.st_mode)) {
    return Error{Fault::local, path + ": not a file or directory", "", EINVAL};
  }
  source.name = runel::baseName(path);
  return Scan(source, left).run(entryOf(path, "", st));
}

std::optional<Error> LocalReader::open(const std::string& path) {
  path_ = path;
  file_.reset(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY));
  struct stat st {};
  if (!file_.valid() || fstat(file_.get(), &st) != 0) {
    return localError(path, errno);
  }
  size_ = static_cast<std::uint64_t>(st.st_size);
  mtime_ = momentOf(st.st_mtim);
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
      return localError(path_, errno);
    }
    if (got == 0) {
      return changedError();
    }
    done += got > 0 ? static_cast<std::size_t>(got) : 0;
  }
  return std::nullopt;
}

Error LocalReader::changedError() const {
  return {Fault::local, path_ + ": changed during the transfer", "retry the transfer", 0};
}

bool LocalReader::changed() const {
  struct stat st {};
  return fstat(file_.get(), &st) != 0 || static_cast<std::uint64_t>(st.st_size) != size_ ||
         !(momentOf(st.st_mtim) == mtime_);
}

std::optional<Error> LocalWriter::begin(const std::string& path, bool resume) {
  discard();
  path_ = path;
  resume_ = resume;
  hidden_ = partPath(path);
  const int flags = O_WRONLY | O_CREAT | O_CLOEXEC | O_NOFOLLOW | (resume ? O_APPEND : O_TRUNC);
  file_.reset(::open(hidden_.c_str(), flags, 0600));
  struct stat st {};
  if (!file_.valid() || fstat(file_.get(), &st) != 0) {
    return localError(path_, errno);
  }
  size_ = static_cast<std::uint64_t>(st.st_size);
  return std::nullopt;
}

std::optional<Error> LocalWriter::add(std::string_view bytes) {
  if (!writeAll(file_.get(), bytes)) {
    return localError(path_, errno);
  }
  size_ += bytes.size();
  return std::nullopt;
}

std::optional<Error> LocalWriter::cutTo(std::uint64_t size) {
  if (ftruncate(file_.get(), static_cast<off_t>(size)) != 0) {
    return localError(path_, errno);
  }
  size_ = size;
  return std::nullopt;
}

std::optional<Error> LocalWriter::finish(std::uint32_t mode, const runel::Timestamp& mtime) {
  const timespec times[2] = {{0, UTIME_OMIT}, {mtime.seconds, mtime.nanoseconds}};
  // Drop the set-user-ID and set-group-ID bits: the owner is a different user here.
  if (fchmod(file_.get(), mode & 0777U) != 0 || futimens(file_.get(), times) != 0 ||
      rename(hidden_.c_str(), path_.c_str()) != 0) {
    return localError(path_, errno);
  }
  file_.reset();
  return std::nullopt;
}

LocalWriter::~LocalWriter() {
  if (!resume_ || size_ == 0) {
    discard();
  }
}

void LocalWriter::discard() {
  if (file_.valid()) {
    (void)unlink(hidden_.c_str());  // no caller to report an error to
    file_.reset();
  }
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
  return localError(path, number);
}

std::optional<Error> makeLocalLink(const std::string& path, const std::string& target) {
  const std::string hidden = partPath(path);
  (void)unlink(hidden.c_str());  // left by an earlier run; symlink() reports it if it stays
  if (symlink(target.c_str(), hidden.c_str()) != 0) {
    return localError(path, errno);
  }
  if (rename(hidden.c_str(), path.c_str()) != 0) {
    const int number = errno;
    (void)unlink(hidden.c_str());  // report the first error
    return localError(path, number);
  }
  return std::nullopt;
}

std::optional<Error> finishLocalDirectory(const std::string& path, std::uint32_t mode,
                                          const runel::Timestamp& mtime) {
  const timespec times[2] = {{0, UTIME_OMIT}, {mtime.seconds, mtime.nanoseconds}};
  if (chmod(path.c_str(), mode & 0777U) != 0 || utimensat(AT_FDCWD, path.c_str(), times, 0) != 0) {
    return localError(path, errno);
  }
  return std::nullopt;
}

std::string octalMode(std::uint32_t mode) {
  char text[16];
  std::snprintf(text, sizeof text, "%04o", mode & 07777U);
  return text;
}

std::string touchTime(const runel::Timestamp& time, bool fractions) {
  char text[64];
  if (fractions) {
    std::snprintf(text, sizeof text, "@%lld.%09lld", static_cast<long long>(time.seconds),
                  static_cast<long long>(time.nanoseconds));
  } else {
    std::snprintf(text, sizeof text, "@%lld", static_cast<long long>(time.seconds));
  }
  return text;
}

std::string partPath(const std::string& path) {
  runel::Sha256 hash;
  hash.add(runel::baseName(path));
  const std::string name = ".runelctl-" + hash.finish().substr(0, kHashDigits) + ".part";
  return path.find('/') == std::string::npos ? name
                                             : runel::joinPath(runel::directoryOf(path), name);
}

std::optional<std::string> localSha256(const std::string& path, std::uint64_t count) {
  LocalReader reader;
  if (reader.open(path) || reader.size() < count) {
    return std::nullopt;
  }
  runel::Sha256 hash;
  std::string bytes;
  for (std::uint64_t offset = 0; offset < count; offset += bytes.size()) {
    const auto part = static_cast<std::size_t>(std::min<std::uint64_t>(kPart, count - offset));
    if (reader.read(offset, part, bytes)) {
      return std::nullopt;
    }
    hash.add(bytes);
  }
  return hash.finish();
}

}  // namespace runelctl
