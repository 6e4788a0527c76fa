// SPDX-License-Identifier: Apache-2.0
// The bytes of a request or an answer, shared and immutable.
#ifndef RUNELGW_CORE_PAYLOAD_H_
#define RUNELGW_CORE_PAYLOAD_H_

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace runelgw {

/// Bytes that are not in memory, such as a part of a file. Belongs to one thread.
class PayloadSource {
 public:
  PayloadSource() = default;
  virtual ~PayloadSource() = default;
  PayloadSource(const PayloadSource&) = delete;
  PayloadSource& operator=(const PayloadSource&) = delete;

  [[nodiscard]] virtual std::uint64_t size() const = 0;
  /// Sets @p out to the @p count bytes at @p offset, which are within `size`. Returns false with
  /// errno on failure.
  [[nodiscard]] virtual bool read(std::uint64_t offset, std::size_t count,
                                  std::string& out) const = 0;
};

/// One payload. Copies are cheap and share the bytes.
class Payload {
 public:
  /// No bytes.
  Payload() = default;
  /// @p bytes in memory.
  Payload(std::string bytes);  // NOLINT(google-explicit-constructor)
  /// The bytes of @p source.
  explicit Payload(std::shared_ptr<const PayloadSource> source);

  [[nodiscard]] std::uint64_t size() const;
  [[nodiscard]] bool isInMemory() const { return source_ == nullptr; }
  /// All bytes. Only for a payload in memory; empty for any other.
  [[nodiscard]] const std::string& bytes() const;
  /// Sets @p out to the @p count bytes at @p offset, to fewer at the end. Returns false with errno
  /// if the bytes cannot be read.
  [[nodiscard]] bool read(std::uint64_t offset, std::size_t count, std::string& out) const;

 private:
  std::shared_ptr<const std::string> bytes_;
  std::shared_ptr<const PayloadSource> source_;
};

}  // namespace runelgw

#endif  // RUNELGW_CORE_PAYLOAD_H_
