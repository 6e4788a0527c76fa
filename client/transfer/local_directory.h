// SPDX-License-Identifier: Apache-2.0
// Directories of this host, and files below them that are reached without following a symbolic
// link. The names below a directory come from a device, from an earlier transfer or from other
// users, so a link among them may lead anywhere.
#ifndef RUNEL_TRANSFER_LOCAL_DIRECTORY_H_
#define RUNEL_TRANSFER_LOCAL_DIRECTORY_H_

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include <runel/error.h>
#include <runel/records.h>
#include <runel/result.h>

#include "base/unique_fd.h"

namespace runel {

/// True if the path @p relative, links apart, cannot lead out of the directory that it is relative
/// to: it has no empty component, no "." or "..", and no zero byte. "." alone is that directory.
[[nodiscard]] bool staysBelow(std::string_view relative);

/// An open directory.
class LocalDirectory {
 public:
  /// Opens @p path. The user named it, so it may be a symbolic link or lead through some.
  [[nodiscard]] std::optional<Error> open(const std::string& path);
  /// Creates the directory @p path with mode 0700 unless it exists, and opens it.
  [[nodiscard]] std::optional<Error> create(const std::string& path);
  /// Creates the directory @p name below @p top with mode 0700 unless it exists, and opens it.
  /// @p text is its path for messages.
  [[nodiscard]] std::optional<Error> createBelow(const LocalDirectory& top, const std::string& name,
                                                 const std::string& text);

  /// The same without creating it.
  [[nodiscard]] std::optional<Error> openIn(const LocalDirectory& top, const std::string& name,
                                            const std::string& text);

  /// Opens @p relative with @p flags as open(2) does, but follows no symbolic link, not even in the
  /// last component. @p flags must not have O_CREAT, nor O_PATH without O_DIRECTORY. Returns an
  /// invalid descriptor with errno on failure: ELOOP for a link, EINVAL for a path that does not
  /// stay below.
  [[nodiscard]] zell::UniqueFd openBelow(const std::string& relative, int flags) const;

 private:
  zell::UniqueFd directory_;
};

/// A file, directory or link of this host.
struct LocalPath {
  const LocalDirectory* top = nullptr;  ///< outlives this; nullptr: the user named this very path
  std::string name;                     ///< relative to `top`; "." is `top` itself
  std::string text;                     ///< the path for messages
  bool namedLink = false;               ///< without `top`: it was a link when the user named it
};

/// Opens @p path for reading with the additional @p flags, as `LocalDirectory::openBelow` does.
/// Without `top`, the directories in the path are the user's choice and may be links. So may the
/// file if it is a `namedLink`.
[[nodiscard]] zell::UniqueFd openLocal(const LocalPath& path, int flags);
/// Opens the directory that contains @p path, which has a `top`. @p flags as above.
[[nodiscard]] zell::UniqueFd openLocalParent(const LocalPath& path, int flags);

/// The error for the file @p text of this host, when a function above has failed with the errno
/// @p number.
[[nodiscard]] Error localPathError(const std::string& text, int number);

/// True if the user's @p path is a directory or a link to one.
[[nodiscard]] bool isLocalDirectory(const std::string& path);
/// The attributes of @p path, which has a `top`; those of a symbolic link are its own. Nothing if
/// it is missing.
[[nodiscard]] Result<std::optional<Stat>> lookAtLocal(const LocalPath& path);
/// Creates the directory @p path unless it exists. A symbolic link to a directory is an error.
[[nodiscard]] std::optional<Error> makeLocalDirectory(const LocalPath& path);
/// Sets mode and time of the directory @p path.
[[nodiscard]] std::optional<Error> finishLocalDirectory(const LocalPath& path, std::uint32_t mode,
                                                        const Timestamp& mtime);

}  // namespace runel

#endif  // RUNEL_TRANSFER_LOCAL_DIRECTORY_H_
