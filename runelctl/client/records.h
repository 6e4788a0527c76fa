// SPDX-License-Identifier: Apache-2.0
// The texts that tasks answer with, read back: stat records, lists of names, walked trees.
#ifndef ZELL_RUNELCTL_CLIENT_RECORDS_H_
#define ZELL_RUNELCTL_CLIENT_RECORDS_H_

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <sys/stat.h>

namespace zell::ctl {

/// Seconds and nanoseconds of the wall clock.
struct Moment {
  std::int64_t seconds = 0;
  std::int64_t nanoseconds = 0;
  bool operator==(const Moment& other) const {
    return seconds == other.seconds && nanoseconds == other.nanoseconds;
  }
};

/// What "stat" and "lstat" answer.
struct StatRecord {
  std::uint64_t dev = 0, ino = 0;
  std::uint32_t mode = 0;
  std::uint64_t nlink = 0, uid = 0, gid = 0, rdev = 0;
  std::uint64_t size = 0, blksize = 0, blocks = 0;
  Moment atime, mtime, ctime;

  [[nodiscard]] bool isFolder() const { return S_ISDIR(mode); }
  [[nodiscard]] bool isRegular() const { return S_ISREG(mode); }
  [[nodiscard]] bool isLink() const { return S_ISLNK(mode); }
};

/// Nothing for a text of another form.
[[nodiscard]] std::optional<StatRecord> parseStat(std::string_view text);

/// The strings of what "readdir" answers. Nothing for a text of another form.
[[nodiscard]] std::optional<std::vector<std::string>> parseNames(std::string_view text);

/// One line of what "walktree" answers.
struct TreeEntry {
  char type = '-';  ///< as in `ls -l`
  std::uint32_t mode = 0;
  std::uint64_t uid = 0, gid = 0, size = 0;
  std::int64_t mtime = 0;
  std::string path;    ///< exact; relative to the folder walked, "." for itself
  std::string target;  ///< of a link, exact
};

/// Nothing for a text of another form.
[[nodiscard]] std::optional<std::vector<TreeEntry>> parseTree(std::string_view text);

/// "-rw-r--r--" for the type letter @p type and the permission bits @p mode.
[[nodiscard]] std::string modeText(char type, std::uint32_t mode);
/// The type letter of a mode with its type bits.
[[nodiscard]] char typeLetter(std::uint32_t mode);

/// @p name seen from the folder @p folder: as it is when it begins with a slash.
[[nodiscard]] std::string joinPath(const std::string& folder, const std::string& name);
/// The last component of @p path, and what is before it ("." for nothing, "/" for the root).
[[nodiscard]] std::string baseName(const std::string& path);
[[nodiscard]] std::string folderOf(const std::string& path);

}  // namespace zell::ctl

#endif  // ZELL_RUNELCTL_CLIENT_RECORDS_H_
