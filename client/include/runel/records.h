// SPDX-License-Identifier: Apache-2.0
// The typed results of tasks, and the parsers of their texts.
#ifndef RUNEL_RECORDS_H_
#define RUNEL_RECORDS_H_

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <runel/export.h>
#include <runel/request.h>

namespace runel {
inline namespace v1 {

/// A wall clock time since 1970, in seconds and nanoseconds.
struct Timestamp {
  std::int64_t seconds = 0;
  std::int64_t nanoseconds = 0;
  bool operator==(const Timestamp& other) const {
    return seconds == other.seconds && nanoseconds == other.nanoseconds;
  }
};

/// The metadata of a file as in stat(2), the answer of "stat" and "lstat". Sizes are in bytes.
struct Stat {
  std::uint64_t dev = 0, ino = 0;
  std::uint32_t mode = 0;  ///< type and permission bits
  std::uint64_t nlink = 0, uid = 0, gid = 0, rdev = 0;
  std::uint64_t size = 0, blksize = 0, blocks = 0;
  Timestamp atime, mtime, ctime;

  [[nodiscard]] RUNEL_API bool isDirectory() const;
  [[nodiscard]] RUNEL_API bool isRegular() const;
  [[nodiscard]] RUNEL_API bool isLink() const;
};

/// One entry of a directory tree, one line of the answer of "walktree".
struct TreeEntry {
  char type = '-';         ///< '-' file, 'd' directory, 'l' link, 'c', 'b', 'p' or 's'
  std::uint32_t mode = 0;  ///< permission bits
  std::uint64_t uid = 0, gid = 0, size = 0;
  std::int64_t mtime = 0;  ///< in whole seconds since 1970
  std::string path;        ///< relative to the top directory, which is "."
  std::string target;      ///< of a symbolic link
};

/// How a program on the device ended, or that it runs in the background.
struct ProgramResult {
  ProgramState state = ProgramState::none;
  int exitStatus = 0;  ///< if `state` is `exited`
  int signal = 0;      ///< the signal that ended it, 0 for none
  std::string output;  ///< standard output and standard error, at most 16 MiB

  [[nodiscard]] bool ok() const { return state == ProgramState::exited && exitStatus == 0; }
};

/// Each returns nothing for malformed text.
[[nodiscard]] RUNEL_API std::optional<Stat> parseStat(std::string_view text);
/// The names in the answer of "readdir".
[[nodiscard]] RUNEL_API std::optional<std::vector<std::string>> parseNames(std::string_view text);
[[nodiscard]] RUNEL_API std::optional<std::vector<TreeEntry>> parseTree(std::string_view text);
/// An unsigned decimal number, the answer of "freeblocks".
[[nodiscard]] RUNEL_API std::optional<std::uint64_t> parseNumber(std::string_view text);

}  // namespace v1
}  // namespace runel

#endif  // RUNEL_RECORDS_H_
