// SPDX-License-Identifier: Apache-2.0
// Files and folders of this host: what is to be sent, and how what comes is stored.
#ifndef ZELL_RUNELCTL_COMMANDS_LOCAL_TREE_H_
#define ZELL_RUNELCTL_COMMANDS_LOCAL_TREE_H_

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/unique_fd.h"
#include "client/error.h"
#include "client/records.h"

namespace zell::ctl {

/// One thing to be sent.
struct LocalEntry {
  char type = '-';       ///< '-', 'd' or 'l'
  std::string path;      ///< here
  std::string relative;  ///< below the source that was named; "" for itself
  std::string target;    ///< of a link
  std::uint32_t mode = 0;
  std::uint64_t size = 0;
  Moment mtime;
};

/// One source that was named, with all below it when it is a folder: folders before what is in
/// them, by byte value.
struct LocalSource {
  std::string name;  ///< its last component
  std::vector<LocalEntry> entries;
};

/// Looks at @p path. The reason when it cannot be sent: missing, unreadable, a folder without
/// @p recursive, neither file, folder nor link. Below a folder, what is none of these is left out
/// and named in @p left.
[[nodiscard]] std::optional<Error> scanLocal(const std::string& path, bool recursive,
                                             LocalSource& source, std::vector<std::string>& left);

/// A file of this host being read, that may be changed by others meanwhile.
class LocalReader {
 public:
  [[nodiscard]] std::optional<Error> open(const std::string& path);
  /// Reads @p count bytes from @p offset. A file that ends earlier has changed.
  [[nodiscard]] std::optional<Error> read(std::uint64_t offset, std::size_t count,
                                          std::string& bytes) const;
  /// True when size or time are not those at `open`.
  [[nodiscard]] bool changed() const;
  /// What to say then.
  [[nodiscard]] Error changedError() const;
  [[nodiscard]] std::uint64_t size() const { return size_; }

 private:
  std::string path_;
  UniqueFd file_;
  std::uint64_t size_ = 0;
  Moment mtime_;
};

/// A file of this host being made under a hidden name beside its place. Given up by destroying it:
/// one that was begun to be resumed stays for a later try, nothing is left of another one.
class LocalWriter {
 public:
  LocalWriter() = default;
  ~LocalWriter();
  LocalWriter(const LocalWriter&) = delete;
  LocalWriter& operator=(const LocalWriter&) = delete;

  /// Begins @p path. With @p resume, what is there of an earlier try stays, and `size` tells how
  /// much that is.
  [[nodiscard]] std::optional<Error> begin(const std::string& path, bool resume);
  [[nodiscard]] std::optional<Error> add(std::string_view bytes);
  /// Keeps only the first @p size bytes.
  [[nodiscard]] std::optional<Error> cutTo(std::uint64_t size);
  /// Puts it in its place with this mode and time.
  [[nodiscard]] std::optional<Error> finish(std::uint32_t mode, const Moment& mtime);
  /// Takes away what is there.
  void discard();
  [[nodiscard]] std::uint64_t size() const { return size_; }
  [[nodiscard]] const std::string& hiddenPath() const { return hidden_; }

 private:
  std::string path_;
  std::string hidden_;
  UniqueFd file_;
  bool resume_ = false;
  std::uint64_t size_ = 0;
};

/// Makes the folder @p path unless it is there; a link to a folder is none.
[[nodiscard]] std::optional<Error> makeLocalFolder(const std::string& path);
/// Makes the link @p path to @p target, in place of a file or link that is there.
[[nodiscard]] std::optional<Error> makeLocalLink(const std::string& path,
                                                 const std::string& target);
/// Gives the folder @p path its mode and time.
[[nodiscard]] std::optional<Error> finishLocalFolder(const std::string& path, std::uint32_t mode,
                                                     const Moment& mtime);

/// As chmod(1) and `touch -d` take them.
[[nodiscard]] std::string octalMode(std::uint32_t mode);
[[nodiscard]] std::string touchTime(const Moment& time, bool fractions);

/// The hidden name beside @p path under which a transfer to it is gathered. Its length does not
/// grow with the name's, and it is the same for the same path.
[[nodiscard]] std::string partPath(const std::string& path);

/// Hex SHA-256 of the first @p count bytes of @p path.
[[nodiscard]] std::optional<std::string> localSha256(const std::string& path, std::uint64_t count);

}  // namespace zell::ctl

#endif  // ZELL_RUNELCTL_COMMANDS_LOCAL_TREE_H_
