// SPDX-License-Identifier: Apache-2.0
// Holds data of many devices: in memory up to a limit, the rest in a temporary file.
#ifndef RUNEL_IO_SPOOL_H_
#define RUNEL_IO_SPOOL_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <runel/async_device.h>

#include "base/unique_fd.h"

namespace runel {
inline namespace v1 {

/// Which data is held. Complete data that waits goes to the file first, so that there is memory for
/// data that arrives, which would otherwise be written twice.
enum class Held { arriving, waiting };

/// The memory limit, and the temporary file in TMPDIR, which has no name and is created when it is
/// needed. Belongs to one thread.
class Spool {
 public:
  explicit Spool(std::size_t limit) : limit_(limit) {}

  /// Counts @p bytes as used. Returns false and counts nothing if that would exceed the limit,
  /// which is half of it for waiting data.
  [[nodiscard]] bool use(std::size_t bytes, Held held);
  /// Counts @p bytes as used, also beyond the limit.
  void useAnyway(std::size_t bytes) { used_ += bytes; }
  void free(std::size_t bytes) { used_ -= bytes; }
  [[nodiscard]] std::size_t used() const { return used_; }

  /// Appends @p bytes to the file and returns their offset. Without a value the file cannot take
  /// them; `error` says why.
  [[nodiscard]] std::optional<std::uint64_t> write(std::string_view bytes);
  /// Reads @p count bytes. Returns false with errno on failure.
  [[nodiscard]] bool read(std::uint64_t offset, char* bytes, std::size_t count) const;
  /// Releases the disk space of a part of the file.
  void discard(std::uint64_t offset, std::size_t count);
  /// The errno value of the first failed write, 0 for none.
  [[nodiscard]] int error() const { return error_; }

 private:
  const std::size_t limit_;
  std::size_t used_ = 0;
  zell::UniqueFd file_;
  std::uint64_t end_ = 0;
  int error_ = 0;
};

/// Bytes that are collected one after the other. Everything that does not fit into the memory of
/// the spool goes to its file. If the file cannot take it, it stays in memory.
class HeldBytes {
 public:
  /// Without a spool everything stays in memory.
  explicit HeldBytes(std::shared_ptr<Spool> spool = nullptr, Held held = Held::waiting)
      : spool_(std::move(spool)), held_(held) {}
  ~HeldBytes() { clear(); }
  HeldBytes(HeldBytes&& other) noexcept;
  HeldBytes& operator=(HeldBytes&& other) noexcept;
  HeldBytes(const HeldBytes&) = delete;
  HeldBytes& operator=(const HeldBytes&) = delete;

  /// Prepares for @p bytes more.
  void expect(std::size_t bytes);
  void add(std::string_view bytes);
  /// Adds @p bytes without a copy, if nothing was added before.
  void take(std::string&& bytes);
  void clear();

  [[nodiscard]] std::size_t size() const { return size_; }
  [[nodiscard]] bool empty() const { return size_ == 0; }
  /// The last byte. Undefined if `empty`.
  [[nodiscard]] char back() const { return last_; }

  /// Calls @p each with all bytes in order, in pieces of at most 256 KiB with the same borders for
  /// equal contents. Returns false if @p each does, or with errno if the file cannot be read.
  [[nodiscard]] bool forEach(const std::function<bool(std::string_view)>& each) const;
  /// Whether @p other has the same bytes. False if a file cannot be read.
  [[nodiscard]] bool operator==(const HeldBytes& other) const;
  /// Moves all bytes out. Without a value, with errno, if the file cannot be read.
  [[nodiscard]] std::optional<std::string> release();

 private:
  // A part of the spool's file.
  struct Extent {
    std::uint64_t offset;
    std::size_t size;
  };

  [[nodiscard]] bool makeRoom(std::size_t bytes);
  void spill(std::string_view bytes);
  [[nodiscard]] bool append(std::string_view bytes);
  [[nodiscard]] std::optional<std::string_view> piece(std::size_t begin, std::string& buffer) const;
  [[nodiscard]] bool copy(std::size_t begin, char* bytes, std::size_t count) const;
  void swap(HeldBytes& other) noexcept;

  std::shared_ptr<Spool> spool_;
  Held held_ = Held::waiting;
  std::vector<Extent> extents_;
  std::size_t spilled_ = 0;  // the sum of the extents
  std::string memory_;       // what follows the extents
  std::size_t counted_ = 0;  // the part of the spool's memory that memory_ may use
  std::size_t size_ = 0;
  char last_ = 0;
};

/// The spool of a device: replies are held in it while they are received.
class DeviceSpool {
 public:
  static void set(DeviceOptions& options, std::shared_ptr<Spool> spool);
  [[nodiscard]] static const std::shared_ptr<Spool>& of(const DeviceOptions& options);
};

}  // namespace v1
}  // namespace runel

#endif  // RUNEL_IO_SPOOL_H_
