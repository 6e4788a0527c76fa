// SPDX-License-Identifier: Apache-2.0
// Reads and writes whole files.
#ifndef ZELL_DEVICE_LINUX_FILE_IO_H_
#define ZELL_DEVICE_LINUX_FILE_IO_H_

#include <cstddef>
#include <string>
#include <string_view>

namespace zell {

/// Reads the whole content of @p path into @p text, to its end for any announced size. Never waits
/// for data: reading ends where no data is available now (a FIFO without a writer). Returns 0 or an
/// errno value: EFBIG, without reading further, for more than @p limit bytes. @p text is
/// unspecified after a failure.
[[nodiscard]] int readWholeFile(const std::string& path, std::size_t limit, std::string& text);

/// Replaces the content of @p path by @p data, on disk before it returns. Returns 0 or an errno
/// value.
///
/// Follows symbolic links and creates the target of a dangling one. A regular file is replaced by a
/// new one with the same permission bits and owner, so that readers see the old or the new content,
/// and the old content stays after a failure. A missing file is created with 0666 less the umask. A
/// file that is not regular is written in place, and so is an existing file that cannot be
/// replaced; a failure then leaves it half written. A file cannot be replaced if
///   - its directory cannot be found or opened: ENOENT, EACCES, EPERM, EROFS;
///   - a kernel link leads to it, and the link's text names no file or a different one;
///   - the temporary file cannot be created: ENOENT, EACCES, EPERM, EROFS;
///   - the rename fails with EBUSY, which means a mount point.
/// On every other error the file stays unchanged.
[[nodiscard]] int replaceFile(const std::string& path, std::string_view data);

/// Appends @p data to @p path, on disk before it returns. Creates a missing file (0666 less the
/// umask). Returns 0 or an errno value; after a failure a regular file is unchanged.
[[nodiscard]] int appendToFile(const std::string& path, std::string_view data);

/// Overwrites the content of the existing file @p path. Opening does not wait. For files without
/// content to lose: devices, FIFOs, kernel files. Returns 0 or an errno value.
[[nodiscard]] int overwriteFile(const char* path, std::string_view data);

/// Writes all of @p data to @p fd. On a non-blocking descriptor it waits for a reader, and fails
/// with EAGAIN after 2 s without progress. Returns 0 or an errno value.
[[nodiscard]] int writeAll(int fd, std::string_view data);

}  // namespace zell

#endif  // ZELL_DEVICE_LINUX_FILE_IO_H_
