// SPDX-License-Identifier: Apache-2.0
// Parsers for the answers of tasks: stat records, lists of names, directory trees.
#ifndef RUNEL_CORE_RECORDS_H_
#define RUNEL_CORE_RECORDS_H_

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <sys/stat.h>

namespace runel {

/// A wall clock time in seconds and nanoseconds.
struct Timestamp {
  std::int64_t seconds = 0;
  std::int64_t nanoseconds = 0;
  bool operator==(const Timestamp& other) const {
    return seconds == other.seconds && nanoseconds == other.nanoseconds;
  }
};

/// The answer of "stat" and "lstat".
struct StatRecord {
  std::uint64_t dev = 0, ino = 0;
  std::uint32_t mode = 0;
  std::uint64_t nlink = 0, uid = 0, gid = 0, rdev = 0;
  std::uint64_t size = 0, blksize = 0, blocks = 0;
  Timestamp atime, mtime, ctime;

  [[nodiscard]] bool isDirectory() const { return S_ISDIR(mode); }
  [[nodiscard]] bool isRegular() const { return S_ISREG(mode); }
  [[nodiscard]] bool isLink() const { return S_ISLNK(mode); }
};

/// Empty for malformed text.
[[nodiscard]] std::optional<StatRecord> parseStat(std::string_view text);

/// The names in the answer of "readdir". Empty for malformed text.
[[nodiscard]] std::optional<std::vector<std::string>> parseNames(std::string_view text);

/// One line of the answer of "walktree".
struct TreeEntry {
  char type = '-';  ///< as in `ls -l`
  std::uint32_t mode = 0;
  std::uint64_t uid = 0, gid = 0, size = 0;
  std::int64_t mtime = 0;
  std::string path;    ///< unescaped; relative to the top directory, which is "."
  std::string target;  ///< of a symbolic link, unescaped
};

/// Empty for malformed text.
[[nodiscard]] std::optional<std::vector<TreeEntry>> parseTree(std::string_view text);

/// "-rw-r--r--" for the type letter @p type and the permission bits @p mode.
[[nodiscard]] std::string modeText(char type, std::uint32_t mode);
/// The type letter of a mode with its type bits.
[[nodiscard]] char typeLetter(std::uint32_t mode);

/// @p name relative to @p directory; an absolute @p name unchanged.
[[nodiscard]] std::string joinPath(const std::string& directory, const std::string& name);
/// The last component of @p path, and its parent directory ("." without a slash, "/" for the root).
[[nodiscard]] std::string baseName(const std::string& path);
[[nodiscard]] std::string directoryOf(const std::string& path);

}  // namespace runel

#endif  // RUNEL_CORE_RECORDS_H_
