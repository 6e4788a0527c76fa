// SPDX-License-Identifier: Apache-2.0
// Finds the files of a push.
#ifndef RUNEL_TRANSFER_LOCAL_TREE_H_
#define RUNEL_TRANSFER_LOCAL_TREE_H_

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <runel/records.h>
#include <runel/result.h>

#include "client/core/path_filter.h"
#include "client/transfer/local_directory.h"

namespace runel {

/// One file, directory or link to send.
struct LocalEntry {
  char type = '-';       ///< '-', 'd' or 'l'
  std::string path;      ///< local path
  std::string relative;  ///< relative to the source; "" for the source itself
  std::string target;    ///< target of a symbolic link
  std::uint32_t mode = 0;
  std::uint64_t size = 0;
  Timestamp mtime;
  const LocalDirectory* top = nullptr;  ///< that of its source
  bool namedLink = false;               ///< a source that was a link when the user named it
};

/// Where to read @p entry.
[[nodiscard]] LocalPath placeOf(const LocalEntry& entry);

/// One source, with all entries below it if it is a directory. A directory precedes its entries,
/// which are sorted by byte value.
struct LocalSource {
  std::string name;                     ///< its last component
  std::shared_ptr<LocalDirectory> top;  ///< the source, if it is a directory
  std::vector<LocalEntry> entries;
};

/// Scans @p path. Fails if it is missing, unreadable, a directory without @p recursive, or not a
/// file or directory. Entries below a directory that are not a file, directory or link are left out
/// and listed in @p left. Entries that @p filter leaves out are not listed, and the directories
/// among them are not read.
[[nodiscard]] Result<LocalSource> scanLocal(const std::string& path, bool recursive,
                                            std::vector<std::string>& left,
                                            const PathFilter& filter = {});

}  // namespace runel

#endif  // RUNEL_TRANSFER_LOCAL_TREE_H_
