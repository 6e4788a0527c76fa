// SPDX-License-Identifier: Apache-2.0
// Fetches a large file in pieces that the device's dd reads. They are written to a hidden file in
// the target directory, which is renamed when it is complete. An interrupted transfer is resumed.
#include <algorithm>
#include <utility>

#include "commands/pull_parts.h"
#include "commands/push_job.h"

namespace runelctl {
namespace {

// Discard the messages of dd: they would be mixed with the content.
std::vector<std::string> pieceProgram(const std::string& path, std::uint64_t offset,
                                      std::size_t size, std::size_t block) {
  return {"/bin/sh",
          "-c",
          "exec dd if=\"$0\" bs=$1 skip=$2 count=$3 2>/dev/null",
          path,
          std::to_string(block),
          std::to_string(offset / block),
          std::to_string((size + block - 1) / block)};
}

}  // namespace

void PullJob::fetchBigFiles() {
  next_ = 0;
  bigFileDone();
}

// Starts the next file.
void PullJob::bigFileDone() {
  if (next_ == big_.size()) {
    makeLinks();
    return;
  }
  // Its pipeline may be the caller: destroy it in the next turn.
  auto old = std::make_shared<std::unique_ptr<BigFile>>(std::move(bigFile_));
  loop().next([old] { old->reset(); });
  bigFile_ = std::make_unique<BigFile>();
  bigFile_->item = &big_[next_++];
  ask(runel::Request({"stat", bigFile_->item->source}),
      [this](const runel::Reply& reply) { beginBigFile(reply); });
}

void PullJob::beginBigFile(const runel::Reply& reply) {
  if (!alive(reply)) {
    return;
  }
  Item& item = *bigFile_->item;
  const std::optional<runel::Stat> st =
      reply.ok() ? runel::parseStat(reply.output()) : std::nullopt;
  if (!st) {
    dropBigFile(reply.ok() ? changedThere(item.source) : reply.error(item.source));
    return;
  }
  item.st = *st;
  if (const auto error = bigFile_->writer.begin(item.path, plan_.resume)) {
    dropBigFile(*error);
    return;
  }
  checkPart();
}

// Checks whether the local partial file is the beginning of the remote file, in complete blocks.
void PullJob::checkPart() {
  BigFile& file = *bigFile_;
  const std::uint64_t size = file.writer.size() / kPieceBlock * kPieceBlock;
  if (size == 0 || size > file.item->st.size) {
    file.error = file.writer.cutTo(0);
    fetchPieces();
    return;
  }
  const std::vector<std::string> sum{"/bin/sh", "-c",
                                     "dd if=\"$0\" bs=65536 count=$1 2>/dev/null | sha256sum",
                                     file.item->source, std::to_string(size / kPieceBlock)};
  ask(runel::Request::exec(sum, 0), [this, size](const runel::Reply& reply) {
    if (!alive(reply)) {
      return;
    }
    const auto sums = parseChecksums(reply.output(), 1);
    const bool same =
        reply.ok() && sums && localSha256(bigFile_->writer.hiddenPath(), size) == sums->front();
    bigFile_->error = bigFile_->writer.cutTo(same ? size : 0);
    if (same) {
      bigFile_->offset = size;
      skip(size, bigFile_->item->source);
      report().result()["resumed_at"] = size;
    }
    fetchPieces();
  });
}

void PullJob::fetchPieces() {
  pipe([this] { return nextPiece(); }, [this] { endPieces(); });
}

std::optional<Pipeline::Item> PullJob::nextPiece() {
  BigFile& file = *bigFile_;
  const std::uint64_t left = file.item->st.size - std::min(file.offset, file.item->st.size);
  if (file.error || left == 0) {
    return std::nullopt;
  }
  const std::uint64_t offset = file.offset;
  const auto size = static_cast<std::size_t>(std::min<std::uint64_t>(left, pieceBytes()));
  file.offset += size;
  const auto handle = [this, offset, size](const runel::Reply& reply) {
    return pieceTaken(offset, size, reply);
  };
  return Pipeline::Item{
      runel::Request::exec(pieceProgram(file.item->source, offset, size, kPieceBlock), 0), size,
      handle};
}

bool PullJob::pieceTaken(std::uint64_t offset, std::size_t size, const runel::Reply& reply) {
  if (!alive(reply)) {
    return false;
  }
  BigFile& file = *bigFile_;
  if (file.error) {
    return false;
  }
  if (!reply.ok()) {
    file.error = Error{Fault::task, file.item->source + ": " + programTrouble("dd", reply), "", 0};
  } else if (reply.output().size() < size || file.writer.size() != offset) {
    file.error = changedThere(file.item->source);
  } else {
    file.error = file.writer.add(std::string_view(reply.output()).substr(0, size));
    count(size, file.item->source);
  }
  return !file.error;
}

void PullJob::endPieces() {
  if (bigFile_->error) {
    dropBigFile(*bigFile_->error);
    return;
  }
  ask(runel::Request({"stat", bigFile_->item->source}),
      [this](const runel::Reply& reply) { finishBigFile(reply); });
}

void PullJob::finishBigFile(const runel::Reply& reply) {
  if (!alive(reply)) {
    return;
  }
  Item& item = *bigFile_->item;
  const std::optional<runel::Stat> st =
      reply.ok() ? runel::parseStat(reply.output()) : std::nullopt;
  if (!st || st->size != item.st.size || !(st->mtime == item.st.mtime) || st->ino != item.st.ino) {
    dropBigFile(changedThere(item.source));
  } else if (const auto error = bigFile_->writer.finish(item.st.mode, item.st.mtime)) {
    dropBigFile(*error);
  } else {
    fileDone();
    bigFileDone();
  }
}

void PullJob::dropBigFile(const Error& error) {
  bigFile_->writer.discard();
  itemFailed(*bigFile_->item, error);
  bigFileDone();
}

}  // namespace runelctl
