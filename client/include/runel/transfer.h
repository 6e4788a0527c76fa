// SPDX-License-Identifier: Apache-2.0
// Files and directory trees of any size: push, pull and sync.
#ifndef RUNEL_TRANSFER_H_
#define RUNEL_TRANSFER_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <runel/async_device.h>
#include <runel/error.h>
#include <runel/export.h>
#include <runel/request.h>
#include <runel/result.h>

namespace runel {
inline namespace v1 {

/// The progress of a transfer.
struct Progress {
  std::uint64_t done = 0;   ///< in bytes
  std::uint64_t total = 0;  ///< in bytes
  std::string name;         ///< of the file in transfer, without its directory
};

/// A file, directory or link that a transfer changes, or is going to change.
struct TransferChange {
  /// What happens to it. New actions may come with new versions.
  enum class Action {
    create,      ///< it is missing
    replace,     ///< it exists
    attributes,  ///< only its mode or time is set
    remove,      ///< a sync removes it
  };
  Action action = Action::create;  ///< what happens to it
  char type = '-';     ///< '-' file, 'd' directory, 'l' link; for `remove` any type of TreeEntry
  std::string path;    ///< on the device, or for a pull on this host
  std::string target;  ///< of a symbolic link
  std::uint64_t size = 0;  ///< of a file, in bytes: the new content, or what is removed
  std::optional<std::uint64_t> oldSize;  ///< of the file that is replaced, in bytes
};

/// Whether the differences from the existing target are sent instead of the whole file.
enum class Delta {
  automatic,  ///< if both files are larger than 4 MiB and the line is slower than 5 MB/s
  always,     ///< if both files are larger than 512 KiB
  never,      ///< not at all
};

/// The options of all transfers. Copies are cheap.
class RUNEL_API TransferOptions {
 public:
  TransferOptions();
  ///@{
  /// A copy with its own settings.
  TransferOptions(const TransferOptions& other);
  TransferOptions& operator=(const TransferOptions& other);
  ///@}
  ~TransferOptions();

  /// Copies directories with all that is in them; off by default. A sync always does.
  TransferOptions& setRecursive(bool on);
  /// Continues an interrupted transfer of a large file after its last complete piece if the
  /// checksum of the part matches; on by default.
  TransferOptions& setResume(bool on);
  /// Compares SHA-256 checksums after the transfer; off by default.
  TransferOptions& setChecksum(bool on);
  /// For a push or sync: of a large file whose target exists, only the differences are sent;
  /// `Delta::automatic` by default. The device reads its old file for this with dd, cksum and
  /// sha256sum. Where this is not possible, a note says why, and the whole file is sent.
  TransferOptions& setDelta(Delta use);
  /// For a sync: removes files on the device that are missing here; off by default.
  TransferOptions& setDelete(bool on);
  /// For a pull: the local target is a directory and each source gets a name in it; off by default,
  /// but also the case if the target is an existing directory, ends in a slash, or has several
  /// sources. A missing directory is created with mode 0700.
  TransferOptions& setIntoDirectory(bool on);
  /// For a pull: the sources get names in the directory @p name of the local target, a relative
  /// path of one component; none by default. A pull from several devices gives each of them a name.
  /// Unlike the target itself, this directory must not be a symbolic link. A missing target and a
  /// missing directory are created with mode 0700.
  TransferOptions& setSubdirectory(std::string name);
  /// About the memory for contents in transit, in bytes; 32 MiB by default. A piece of a large file
  /// has at most half of it, in whole blocks of 64 KiB, but at least one. The pieces of a push are
  /// as large as what the device takes in a second, up to 32 MiB; those of a pull have up to 8 MiB.
  TransferOptions& setMemory(std::size_t bytes);
  /// For a push and a sync: compresses pieces of large files with @p gzip, which returns its
  /// argument as a gzip file, while that is faster. It is tried on a line slower than 5 MB/s; with
  /// @p onAnyLine also on a faster one. The device's gzip unpacks; without it, and without
  /// @p gzip, which is the default, nothing is compressed.
  TransferOptions& setCompression(std::function<std::string(std::string_view bytes)> gzip,
                                  bool onAnyLine);
  /// Where setCompression() compresses: tries @p bzip2 too, which returns its argument as a bzip2
  /// file, and continues with what is faster. The device's bunzip2 unpacks; without it, and without
  /// @p bzip2, which is the default, only gzip is used.
  TransferOptions& setBzip2(std::function<std::string(std::string_view bytes)> bzip2);
  /// Calls @p progress after each file and each piece. It must not destroy the transfer.
  TransferOptions& setProgress(std::function<void(const Progress&)> progress);
  /// Leaves out what these rules match. A rule is PATTERN or "- PATTERN", or "+ PATTERN" for what
  /// is not left out; the first rule that matches decides. The patterns are those of rsync's
  /// --exclude that runelctl(1) describes. For a pull and for `Device`; a push or sync leaves out
  /// what its sources leave out. An invalid rule fails the transfer.
  TransferOptions& setExcludes(std::vector<std::string> rules);
  /// Finds out what the transfer would change and changes nothing; off by default. The device gets
  /// only requests that read. A sync with checksums runs sha256sum there. The report counts the
  /// files, bytes and entries that would be transferred and removed.
  TransferOptions& setPlanOnly(bool on);
  /// Calls @p handler with each change before the transfer makes it. What fails later was announced
  /// too. The modes and times of transferred files and of existing directories are not told. The
  /// handler must not destroy the transfer.
  TransferOptions& setChangeHandler(std::function<void(const TransferChange&)> handler);

  ///@{
  /// The current setting.
  [[nodiscard]] bool recursive() const;
  [[nodiscard]] bool resume() const;
  [[nodiscard]] bool checksum() const;
  [[nodiscard]] Delta delta() const;
  [[nodiscard]] bool removes() const;
  [[nodiscard]] bool intoDirectory() const;
  [[nodiscard]] const std::string& subdirectory() const;
  [[nodiscard]] std::size_t memory() const;
  [[nodiscard]] const std::function<std::string(std::string_view bytes)>& compression() const;
  [[nodiscard]] bool compressesOnAnyLine() const;
  [[nodiscard]] const std::function<std::string(std::string_view bytes)>& bzip2() const;
  [[nodiscard]] const std::function<void(const Progress&)>& progress() const;
  [[nodiscard]] const std::vector<std::string>& excludes() const;
  [[nodiscard]] bool planOnly() const;
  [[nodiscard]] const std::function<void(const TransferChange&)>& changeHandler() const;
  ///@}

 private:
  struct RUNEL_LOCAL Data;
  RUNEL_LOCAL Data& own();
  std::shared_ptr<Data> data_;
};

/// What a transfer has done. Copies are cheap.
class RUNEL_API TransferReport {
 public:
  /// True if every file was transferred and nothing was skipped or left undone.
  [[nodiscard]] bool ok() const;
  /// False if the transfer ended early: because of a lost link, whose error has
  /// `Outcome::notSent` only if no request of the transfer was answered, or because a directory
  /// could not be read or created.
  [[nodiscard]] bool complete() const;
  /// Why the transfer ended early, or the first failure of a file, if any. If a file failed before
  /// the transfer ended early, that failure is the first of the warnings.
  [[nodiscard]] const std::optional<Error>& error() const;
  /// Further failures and what was skipped, one sentence each.
  [[nodiscard]] const std::vector<std::string>& warnings() const;
  /// How the transfer was done, one sentence each: nothing that needs attention.
  [[nodiscard]] const std::vector<std::string>& notes() const;
  /// True when a warning tells of something that was skipped or not done, such as a special file or
  /// modes that were not kept.
  [[nodiscard]] bool partial() const;
  [[nodiscard]] std::size_t files() const;    ///< number of transferred files
  [[nodiscard]] std::uint64_t bytes() const;  ///< number of transferred bytes of content
  /// Number of bytes that were sent for them: fewer than `bytes` if they were compressed.
  [[nodiscard]] std::uint64_t sentBytes() const;
  /// Number of bytes that were not sent, because a delta took them from the old files.
  [[nodiscard]] std::uint64_t kept() const;
  [[nodiscard]] std::size_t removed() const;  ///< number of entries that a sync removed
  /// Where the transfer of the last resumed file continued, in bytes.
  [[nodiscard]] std::optional<std::uint64_t> resumedAt() const;

 private:
  friend class TransferWork;
  struct RUNEL_LOCAL Data;
  RUNEL_LOCAL explicit TransferReport(std::shared_ptr<const Data> data);
  std::shared_ptr<const Data> data_;
};

/// The local side of a push or sync, read from the file system once for any number of devices.
class RUNEL_API PushSources {
 public:
  /// Reads the names and attributes below @p paths. Blocks on the local file system. Fails with
  /// `Kind::local`.
  [[nodiscard]] static Result<PushSources> scan(const std::vector<std::string>& paths,
                                                bool recursive);
  /// The same without what the rules @p excludes leave out: see `TransferOptions::setExcludes`. A
  /// push also leaves out a source whose own name they match. A sync does not remove on the device
  /// what they match.
  [[nodiscard]] static Result<PushSources> scan(const std::vector<std::string>& paths,
                                                bool recursive,
                                                const std::vector<std::string>& excludes);
  /// What was left out, one sentence each: sockets, devices and the like. Reports of transfers
  /// have them among their warnings.
  [[nodiscard]] const std::vector<std::string>& skipped() const;
  [[nodiscard]] std::size_t files() const;        ///< number of files
  [[nodiscard]] std::size_t directories() const;  ///< number of directories
  [[nodiscard]] std::size_t links() const;        ///< number of symbolic links
  [[nodiscard]] std::uint64_t bytes() const;      ///< size of all files

 private:
  friend class TransferWork;
  struct RUNEL_LOCAL Data;
  RUNEL_LOCAL explicit PushSources(std::shared_ptr<const Data> data);
  [[nodiscard]] RUNEL_LOCAL std::size_t count(char type) const;
  std::shared_ptr<const Data> data_;
};

/// A running transfer. A failed file is reported, keeps its old content at its target and does not
/// stop the others. A lost connection ends the transfer. Reads and writes local files in the loop's
/// thread. Below the local directories that the caller names, it follows no symbolic link.
class RUNEL_API AsyncTransfer {
 public:
  /// Called once, never within the call that started the transfer. It may destroy the transfer.
  using Done = std::function<void(TransferReport report)>;

  ///@{
  /// Starts a transfer at once. The device must outlive it.
  [[nodiscard]] static std::unique_ptr<AsyncTransfer> push(AsyncDevice& device,
                                                           const PushSources& sources,
                                                           const std::string& target,
                                                           const TransferOptions& options,
                                                           Done done);
  [[nodiscard]] static std::unique_ptr<AsyncTransfer> sync(AsyncDevice& device,
                                                           const PushSources& source,
                                                           const std::string& target,
                                                           const TransferOptions& options,
                                                           Done done);
  [[nodiscard]] static std::unique_ptr<AsyncTransfer> pull(AsyncDevice& device,
                                                           const std::vector<std::string>& sources,
                                                           const std::string& target,
                                                           const TransferOptions& options,
                                                           Done done);
  ///@}
  /// Ends the transfer without calling its handler. The requests that are already sent still run on
  /// the device; abandon or close it to end them too.
  ~AsyncTransfer();
  AsyncTransfer(const AsyncTransfer&) = delete;
  AsyncTransfer& operator=(const AsyncTransfer&) = delete;

  /// What the transfer has done so far.
  [[nodiscard]] TransferReport report() const;
  /// The request that removes what an unfinished transfer has left on the device, if any. Send it
  /// on another connection.
  [[nodiscard]] std::optional<Request> cleanUp() const;

 private:
  struct RUNEL_LOCAL Data;
  RUNEL_LOCAL explicit AsyncTransfer(std::unique_ptr<Data> data);
  std::unique_ptr<Data> data_;
};

}  // namespace v1
}  // namespace runel

#endif  // RUNEL_TRANSFER_H_
