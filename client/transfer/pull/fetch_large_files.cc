// SPDX-License-Identifier: Apache-2.0
// Fetches a large file in pieces that the device's dd reads. They are written to a part in the
// target directory, which is renamed when it is complete. An interrupted transfer is resumed.
#include <string_view>

#include "client/transfer/local_file.h"
#include "client/transfer/parts.h"
#include "client/transfer/programs.h"
#include "client/transfer/pull/stages.h"

namespace runel {
namespace {

// Discard the messages of dd: they would be mixed with the content.
Request readPiece(const std::string& path, const Piece& piece) {
  return Request::exec(
      {"/bin/sh", "-c", "exec dd if=\"$0\" bs=$1 skip=$2 count=$3 2>/dev/null", path,
       std::to_string(kPieceBlock), std::to_string(piece.offset / kPieceBlock),
       std::to_string((piece.size + kPieceBlock - 1) / kPieceBlock)},
      0);
}

Request sumOfBlocks(const std::string& path, std::uint64_t count) {
  return Request::exec({"/bin/sh", "-c", "dd if=\"$0\" bs=65536 count=$1 2>/dev/null | sha256sum",
                        path, std::to_string(count)},
                       0);
}

class FetchLargeFile : public PullStage {
 public:
  FetchLargeFile(PullWork& work, PullItem& item) : PullStage(work), item_(item) {}

  void start(Next next) override {
    next_ = std::move(next);
    work().ask(Request({"stat", item_.source}), [this](const Reply& reply) { begin(reply); });
  }

 private:
  void begin(const Reply& reply) {
    if (!work().takeStatBefore(item_, reply)) {
      next_();
    } else if (const auto error = writer_.begin(work().placeOf(item_), work().options().resume())) {
      drop(*error);
    } else {
      findPart();
    }
  }

  // Checks whether the local part is the beginning of the remote file, in complete blocks.
  void findPart() {
    const std::uint64_t blocks = writer_.size() / kPieceBlock;
    const std::uint64_t size = blocks * kPieceBlock;
    if (size == 0 || size > item_.st.size) {
      fetchFrom(0);
      return;
    }
    checkPart(work(), sumOfBlocks(item_.source, blocks), writer_.hiddenPath(), size, item_.source,
              [this](std::uint64_t offset) { fetchFrom(offset); });
  }

  void fetchFrom(std::uint64_t offset) {
    error_ = writer_.cutTo(offset);
    pieces_ = Pieces(offset, item_.st.size, work().pieceBytes());
    work().pipe([this] { return nextPiece(); }, [this] { endPieces(); });
  }

  std::optional<Pipeline::Item> nextPiece() {
    const std::optional<Piece> piece = error_ ? std::nullopt : pieces_.next();
    if (!piece) {
      return std::nullopt;
    }
    return Pipeline::Item{
        readPiece(item_.source, *piece), piece->size,
        [this, piece = *piece](const Reply& reply) { return take(piece, reply); }};
  }

  // Returns false to stop.
  bool take(const Piece& piece, const Reply& reply) {
    if (error_) {
      return false;
    }
    const std::string& bytes = reply.output();
    if (!reply.ok()) {
      error_ = Error(Kind::device, Cause::programFailed,
                     item_.source + ": " + programTrouble("dd", reply));
    } else if (bytes.size() < piece.size || writer_.size() != piece.offset) {
      error_ = changedThere(item_);
    } else {
      error_ = writer_.add(std::string_view(bytes).substr(0, piece.size));
      writer_.beginSync();
      work().count(piece.size, item_.source);
    }
    return !error_;
  }

  void endPieces() {
    if (error_) {
      drop(*error_);
      return;
    }
    work().ask(Request({"stat", item_.source}), [this](const Reply& reply) { finish(reply); });
  }

  void finish(const Reply& reply) {
    std::optional<Error> error = work().checkStatAfter(item_, reply, writer_.size());
    error = error ? error : writer_.setAttributes(item_.st.mode, item_.st.mtime);
    error = error ? error : writer_.finish();
    if (error) {
      drop(*error);
    } else {
      work().fileDone();
      next_();
    }
  }

  void drop(const Error& error) {
    writer_.discard();
    work().failItem(item_, error);
    next_();
  }

  PullItem& item_;
  Next next_;
  LocalWriter writer_;
  Pieces pieces_;
  std::optional<Error> error_;
};

class FetchLargeFiles : public PullStage {
 public:
  using PullStage::PullStage;

  void start(Next next) override {
    Stages files;
    for (PullItem& item : work().large) {
      files.push_back(std::make_unique<FetchLargeFile>(work(), item));
    }
    runner_.run(std::move(files), std::move(next));
  }

 private:
  StageRunner runner_;
};

}  // namespace

std::unique_ptr<Stage> fetchLargeFiles(PullWork& work) {
  return std::make_unique<FetchLargeFiles>(work);
}

}  // namespace runel
