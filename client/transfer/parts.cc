// SPDX-License-Identifier: Apache-2.0
#include "client/transfer/parts.h"

#include <algorithm>
#include <utility>

#include "client/transfer/checksums.h"

namespace runel {

std::optional<Piece> Pieces::next(std::size_t most) {
  if (next_ >= end_) {
    return std::nullopt;
  }
  const auto size = static_cast<std::size_t>(std::min<std::uint64_t>(end_ - next_, most));
  const Piece piece{next_, size};
  next_ += size;
  return piece;
}

void checkPart(TransferWork& work, const Request& sum, const LocalPath& local, std::uint64_t size,
               const std::string& name, std::function<void(std::uint64_t offset)> next) {
  work.ask(sum, [&work, local, size, name, next = std::move(next)](const Reply& reply) {
    const auto sums = parseChecksums(reply.output(), 1);
    const bool same = reply.ok() && sums && localSha256(local, size) == sums->front();
    if (same) {
      work.skip(size, name);
      work.resumedAt(size);
    }
    next(same ? size : 0);
  });
}

Error changedFile(Kind kind, const std::string& path) {
  return Error(kind, Cause::changed, path + ": changed during the transfer");
}

}  // namespace runel
