// SPDX-License-Identifier: Apache-2.0
// Large files: pieces, and the parts that an interrupted transfer leaves.
#ifndef RUNEL_TRANSFER_PARTS_H_
#define RUNEL_TRANSFER_PARTS_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "client/transfer/local_directory.h"
#include "client/transfer/work.h"

namespace runel {

/// A piece consists of such blocks, except the last one of a file: the device's dd skips blocks.
constexpr std::size_t kPieceBlock = 65536;

struct Piece {
  std::uint64_t offset = 0;
  std::size_t size = 0;
};

/// Cuts a file into pieces.
class Pieces {
 public:
  Pieces() = default;
  /// From @p begin to @p end, with at most @p most bytes each.
  Pieces(std::uint64_t begin, std::uint64_t end, std::size_t most)
      : next_(begin), end_(end), most_(most) {}
  /// Nothing at the end.
  [[nodiscard]] std::optional<Piece> next() { return next(most_); }
  /// The same with at most @p most bytes.
  [[nodiscard]] std::optional<Piece> next(std::size_t most);

 private:
  std::uint64_t next_ = 0;
  std::uint64_t end_ = 0;
  std::size_t most_ = 0;
};

/// Decides whether a transfer continues after the first @p size bytes. @p sum is the request for
/// their checksum on the device, @p local the file of this host that has them, @p name the file in
/// transfer. Calls @p next with the offset to continue at: @p size, or 0 if the checksums differ.
void checkPart(TransferWork& work, const Request& sum, const LocalPath& local, std::uint64_t size,
               const std::string& name, std::function<void(std::uint64_t offset)> next);

/// The error for the file @p path that somebody changed during the transfer.
[[nodiscard]] Error changedFile(Kind kind, const std::string& path);

}  // namespace runel

#endif  // RUNEL_TRANSFER_PARTS_H_
