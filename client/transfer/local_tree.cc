// SPDX-License-Identifier: Apache-2.0
#include "client/transfer/local_tree.h"

#include <algorithm>
#include <cerrno>
#include <memory>
#include <optional>
#include <utility>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/file_mode.h"
#include "base/unique_fd.h"
#include "client/core/paths.h"
#include "client/transfer/local_file.h"

namespace runel {
namespace {

// Leaves errno unchanged.
struct CloseDirectory {
  void operator()(DIR* directory) const {
    const int saved = errno;
    (void)closedir(directory);
    errno = saved;
  }
};
using DirectoryStream = std::unique_ptr<DIR, CloseDirectory>;

bool readLink(int directory, const std::string& name, std::string& target) {
  target.resize(4096);
  const ssize_t length = readlinkat(directory, name.c_str(), target.data(), target.size());
  target.resize(length < 0 ? 0 : static_cast<std::size_t>(length));
  return length >= 0;
}

// Returns an empty pointer with errno on failure.
DirectoryStream streamOf(zell::UniqueFd directory) {
  DirectoryStream stream(directory.valid() ? fdopendir(directory.get()) : nullptr);
  if (stream) {
    (void)directory.release();  // the stream owns it
  }
  return stream;
}

// Returns false with errno on failure. Some of the names must not pass for all of them: a sync
// would remove the others on the device.
bool namesIn(DIR* directory, std::vector<std::string>& names) {
  errno = 0;
  while (const dirent* entry = readdir(directory)) {
    const std::string name = entry->d_name;
    if (name != "." && name != "..") {
      names.push_back(name);
    }
    errno = 0;
  }
  const bool complete = errno == 0;
  std::sort(names.begin(), names.end());
  return complete;
}

LocalEntry entryOf(const std::string& path, const std::string& relative, const struct stat& st) {
  return {zell::typeLetter(st.st_mode),
          path,
          relative,
          "",
          st.st_mode & zell::kPermissionBits,
          S_ISREG(st.st_mode) ? static_cast<std::uint64_t>(st.st_size) : 0,
          timestampOf(st.st_mtim)};
}

// Depth first, with a list instead of recursion: trees may be deep.
class Scan {
 public:
  Scan(LocalSource& source, std::vector<std::string>& left, const PathFilter& filter)
      : source_(source), left_(left), filter_(filter) {}

  std::optional<Error> run(LocalEntry top) {
    todo_.push_back(std::move(top));
    while (!todo_.empty()) {
      const LocalEntry entry = std::move(todo_.back());
      todo_.pop_back();
      source_.entries.push_back(entry);
      if (auto error = entry.type == 'd' ? open(entry) : std::nullopt) {
        return error;
      }
    }
    return std::nullopt;
  }

 private:
  std::optional<Error> open(const LocalEntry& entry) {
    const DirectoryStream directory = streamOf(source_.top->openBelow(
        entry.relative.empty() ? "." : entry.relative, O_RDONLY | O_DIRECTORY));
    std::vector<std::string> names;
    if (!directory || !namesIn(directory.get(), names)) {
      return localPathError(entry.path, errno);
    }
    for (auto name = names.rbegin(); name != names.rend(); ++name) {
      if (auto error = add(dirfd(directory.get()), *name, entry)) {
        return error;
      }
    }
    return std::nullopt;
  }

  // An entry that cannot be examined must not pass for a removed one.
  std::optional<Error> add(int directory, const std::string& name, const LocalEntry& parent) {
    const std::string path = joinPath(parent.path, name);
    const std::string relative = parent.relative.empty() ? name : parent.relative + "/" + name;
    struct stat st {};
    if (fstatat(directory, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
      return changedSince(path, errno == ENOENT);
    }
    if (filter_.leavesOut(relative, S_ISDIR(st.st_mode))) {
      return std::nullopt;
    }
    LocalEntry entry = entryOf(path, relative, st);
    entry.top = source_.top.get();
    if (entry.type == 'l' && !readLink(directory, name, entry.target)) {
      return changedSince(path, errno == ENOENT || errno == EINVAL);  // gone, or no link now
    }
    if (entry.type == '-' || entry.type == 'd' || entry.type == 'l') {
      todo_.push_back(std::move(entry));
    } else {
      left_.push_back(path);
    }
    return std::nullopt;
  }

  // With @p changed it was removed or replaced since its directory was read: left out. Anything
  // else is an error.
  std::optional<Error> changedSince(const std::string& path, bool changed) {
    if (!changed) {
      return Error::local(path, errno);
    }
    left_.push_back(path);
    return std::nullopt;
  }

  LocalSource& source_;
  std::vector<std::string>& left_;
  const PathFilter& filter_;
  std::vector<LocalEntry> todo_;
};

std::optional<Error> scanDirectory(LocalSource& source, const LocalEntry& top,
                                   std::vector<std::string>& left, const PathFilter& filter) {
  source.top = std::make_shared<LocalDirectory>();
  if (auto error = source.top->open(top.path)) {
    return error;
  }
  return Scan(source, left, filter).run(top);
}

}  // namespace

LocalPath placeOf(const LocalEntry& entry) {
  return {entry.top, entry.top == nullptr ? entry.path : entry.relative, entry.path,
          entry.namedLink};
}

Result<LocalSource> scanLocal(const std::string& path, bool recursive,
                              std::vector<std::string>& left, const PathFilter& filter) {
  struct stat st {};
  const bool link = lstat(path.c_str(), &st) == 0 && S_ISLNK(st.st_mode);
  if (stat(path.c_str(), &st) != 0) {
    return Error::local(path, errno);
  }
  if (S_ISDIR(st.st_mode) && !recursive) {
    return Error(Kind::local, Cause::directory, path + ": " + systemText(EISDIR), EISDIR);
  }
  if (!S_ISDIR(st.st_mode) && !S_ISREG(st.st_mode)) {
    return Error(Kind::local, Cause::fileType, path + ": not a file or directory", EINVAL);
  }
  LocalSource source;
  source.name = baseName(path);
  LocalEntry top = entryOf(path, "", st);
  if (!S_ISDIR(st.st_mode)) {
    top.namedLink = link;
    source.entries.push_back(std::move(top));
    return source;
  }
  if (const auto error = scanDirectory(source, top, left, filter)) {
    return *error;
  }
  return source;
}

}  // namespace runel
