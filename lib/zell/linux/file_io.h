// SPDX-License-Identifier: Apache-2.0
// Whole files in one call.
#ifndef ZELL_LINUX_FILE_IO_H_
#define ZELL_LINUX_FILE_IO_H_

#include <cstddef>
#include <string>
#include <string_view>

#include <sys/types.h>

namespace zell {

/// The permission bits of a file's mode, with the set-id bits and the sticky bit.
constexpr mode_t kPermissionBits = 07777;

/// Makes @p text the whole content of @p path, read to its end whatever size the file claims. Never
/// waits for data: what is not there now (a FIFO without a writer) is the end. 0 or an errno value:
/// EFBIG, without reading on, for more than @p limit bytes. @p text is unspecified after a failure.
[[nodiscard]] int readWholeFile(const std::string& path, std::size_t limit, std::string& text);

/// Replaces the content of @p path by @p data, on disk before it returns. 0 or an errno value.
///
/// Links are followed, and a dangling one gets its target. A regular file is replaced by a new one
/// with its permission bits and owner, so that whoever reads sees the old or the new content, and
/// after a failure the old; a missing one is made with 0666 less the umask. What is no regular file
/// is written in place, and so is an existing file that cannot be replaced; a failure in the middle
/// leaves that half written. A file cannot be replaced where
///   - its directory cannot be found or opened: ENOENT, EACCES, EPERM, EROFS;
///   - a link of the kernel's leads to it whose text names no file or another one;
///   - the temporary file cannot be made: ENOENT, EACCES, EPERM, EROFS;
///   - the rename answers EBUSY, which means a mount point.
/// Every other error leaves the file as it was.
[[nodiscard]] int replaceFile(const std::string& path, std::string_view data);

/// Adds @p data to the end of @p path, on disk before it returns; makes the file (0666 less the
/// umask) when it is missing. 0 or an errno value; after a failure a regular file is as it was.
[[nodiscard]] int appendToFile(const std::string& path, std::string_view data);

/// Writes @p data over the content of the existing file @p path, without waiting in the opening.
/// For what has no content to lose: devices, FIFOs, the kernel's own files. 0 or an errno value.
[[nodiscard]] int overwriteFile(const char* path, std::string_view data);

/// Writes all of @p data to @p fd. On a descriptor that does not block it waits for a reader, but
/// gives up with EAGAIN when 2 s pass without one byte taken. 0 or an errno value.
[[nodiscard]] int writeAll(int fd, std::string_view data);

}  // namespace zell

#endif  // ZELL_LINUX_FILE_IO_H_
