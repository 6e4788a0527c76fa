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
  std::int64_t seconds = 0;      ///< since 1970-01-01 00:00 UTC
  std::int64_t nanoseconds = 0;  ///< 0 to 999,999,999
  /// The same time.
  bool operator==(const Timestamp& other) const {
    return seconds == other.seconds && nanoseconds == other.nanoseconds;
  }
};

/// The metadata of a file as in stat(2), the answer of "stat" and "lstat". Sizes are in bytes.
struct Stat {
  std::uint64_t dev = 0;      ///< number of the file system's device
  std::uint64_t ino = 0;      ///< inode number
  std::uint32_t mode = 0;     ///< type and permission bits
  std::uint64_t nlink = 0;    ///< number of hard links
  std::uint64_t uid = 0;      ///< user number of the owner
  std::uint64_t gid = 0;      ///< number of the group
  std::uint64_t rdev = 0;     ///< of a device file: its device number
  std::uint64_t size = 0;     ///< in bytes
  std::uint64_t blksize = 0;  ///< preferred size of reads and writes
  std::uint64_t blocks = 0;   ///< used blocks of 512 bytes
  Timestamp atime;            ///< last read
  Timestamp mtime;            ///< last change of the content
  Timestamp ctime;            ///< last change of the content or the metadata

  ///@{
  /// The type in `mode`.
  [[nodiscard]] RUNEL_API bool isDirectory() const;
  [[nodiscard]] RUNEL_API bool isRegular() const;
  [[nodiscard]] RUNEL_API bool isLink() const;
  ///@}
};

/// One entry of a directory tree, one line of the answer of "walktree".
struct TreeEntry {
  char type = '-';         ///< '-' file, 'd' directory, 'l' link, 'c', 'b', 'p' or 's'
  std::uint32_t mode = 0;  ///< permission bits
  std::uint64_t uid = 0;   ///< user number of the owner
  std::uint64_t gid = 0;   ///< number of the group
  std::uint64_t size = 0;  ///< in bytes
  std::int64_t mtime = 0;  ///< in whole seconds since 1970
  std::string path;        ///< relative to the top directory, which is "."
  std::string target;      ///< of a symbolic link
};

/// How a program on the device ended, or that it runs in the background.
struct ProgramResult {
  ProgramState state = ProgramState::none;  ///< `running` after a start in the background
  int exitStatus = 0;                       ///< if `state` is `exited`
  int signal = 0;                           ///< the signal that ended it, 0 for none
  std::string output;                       ///< standard output and standard error, at most 16 MiB

  /// Whether it exited with status 0.
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
