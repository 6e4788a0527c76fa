// SPDX-License-Identifier: Apache-2.0
// The temporary file of large payloads.
#ifndef RUNELGW_CORE_PAYLOAD_SPOOL_H_
#define RUNELGW_CORE_PAYLOAD_SPOOL_H_

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include <runel/result.h>

#include "gateway/core/payload.h"

namespace runelgw {

/// From this size on, a payload belongs into the spool and not into memory.
constexpr std::size_t kLargePayload = 1048576;

/// Collects the bytes of one payload in the spool. Dropping it frees its room.
class PayloadWriter {
 public:
  PayloadWriter() = default;
  virtual ~PayloadWriter() = default;
  PayloadWriter(const PayloadWriter&) = delete;
  PayloadWriter& operator=(const PayloadWriter&) = delete;

  /// Appends @p bytes. Returns false with errno on failure, such as a full disk or more bytes than
  /// announced. Every later call then fails too.
  virtual bool add(std::string_view bytes) = 0;
  /// Whether all announced bytes are written.
  [[nodiscard]] virtual bool complete() const = 0;
  /// The payload, if it is complete; otherwise an empty one. Call it once.
  [[nodiscard]] virtual Payload finish() = 0;
};

/// Holds large payloads in one file without a name, up to a number of bytes. The room of a payload
/// is free again after the last copy of it is destroyed, which may be after the spool itself.
/// Belongs to one thread.
class PayloadSpool {
 public:
  /// @p directory is that of the file, which is created with the first payload.
  PayloadSpool(std::string directory, std::uint64_t limit);
  ~PayloadSpool();
  PayloadSpool(const PayloadSpool&) = delete;
  PayloadSpool& operator=(const PayloadSpool&) = delete;

  /// Reserves room for a payload of @p size bytes. Fails with `Kind::local` when it is full.
  [[nodiscard]] runel::Result<std::unique_ptr<PayloadWriter>> begin(std::uint64_t size);
  /// The number of reserved bytes.
  [[nodiscard]] std::uint64_t used() const;
  [[nodiscard]] std::uint64_t limit() const;

 private:
  class File;
  class Extent;
  class Writer;

  std::shared_ptr<File> file_;
};

}  // namespace runelgw

#endif  // RUNELGW_CORE_PAYLOAD_SPOOL_H_
