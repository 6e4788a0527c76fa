// SPDX-License-Identifier: Apache-2.0
#include "client/transfer/local_tree.h"

#include <algorithm>
#include <cerrno>
#include <memory>
#include <optional>
#include <utility>

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/file_mode.h"
#include "client/core/paths.h"
#include "client/transfer/local_file.h"

namespace runel {
namespace {

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
  Scan(LocalSource& source, std::vector<std::string>& left) : source_(source), left_(left) {}

  std::optional<Error> run(LocalEntry top) {
    todo_.push_back(std::move(top));
    while (!todo_.empty()) {
      const LocalEntry entry = std::move(todo_.back());
      todo_.pop_back();
      source_.entries.push_back(entry);
      if (entry.type == 'd' && !open(entry)) {
        return Error::local(entry.path, errno);
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
      add(joinPath(directory.path, *name),
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

Result<LocalSource> scanLocal(const std::string& path, bool recursive,
                              std::vector<std::string>& left) {
  struct stat st {};
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
  if (const auto error = Scan(source, left).run(entryOf(path, "", st))) {
    return *error;
  }
  return source;
}

}  // namespace runel
