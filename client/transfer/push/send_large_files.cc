// SPDX-License-Identifier: Apache-2.0
// Sends a large file in pieces to a part in the target directory, which is renamed when it is
// complete. An interrupted transfer is resumed if the part matches this file.
#include <algorithm>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "client/core/late_content.h"
#include "client/transfer/delta/delta_transfer.h"
#include "client/transfer/delta/line_rate.h"
#include "client/transfer/hidden_paths.h"
#include "client/transfer/local_file.h"
#include "client/transfer/parts.h"
#include "client/transfer/programs.h"
#include "client/transfer/push/device_memory.h"
#include "client/transfer/push/stages.h"
#include "client/transfer/push/staging_directory.h"

namespace runel {
namespace {

struct SourceFile {
  LocalReader reader;
  std::optional<Error> error;  // of a read
};

class SendLargeFile : public PushStage {
 public:
  SendLargeFile(PushWork& work, PushItem& item) : PushStage(work), item_(item) {}

  void start(Next next) override {
    next_ = std::move(next);
    if (const auto error = file_->reader.open(placeOf(*item_.entry))) {
      work().failItem(item_, *error);
      next_();
    } else if (item_.there && item_.there->isLink()) {
      followLink();
    } else {
      findPart();
    }
  }

 private:
  void followLink() {
    work().ask(Request({"realpath", item_.target}), [this](const Reply& reply) {
      item_.target = reply.ok() ? reply.output() : item_.target;
      work().ask(Request({"lstat", item_.target}), [this](const Reply& there) {
        item_.there = statIn(there);
        findPart();
      });
    });
  }

  void findPart() {
    if (!work().options().resume()) {
      createDirectory();
      return;
    }
    setPart(partPath(item_.target));
    work().ask(Request({"stat", part_}), [this](const Reply& reply) {
      const std::optional<Stat> st = statIn(reply);
      notePlace(st);
      if (!st || !st->isRegular() || st->size == 0 || st->size > file_->reader.size()) {
        beginAt(0);
        return;
      }
      if (work().options().compression()) {
        work().tell(Request({"unlink", packed_}));  // that the interrupted transfer may have left
      }
      checkPart(work(), Request::exec({"sha256sum", "--", part_}, 0), placeOf(*item_.entry),
                st->size, item_.target, [this](std::uint64_t offset) { beginAt(offset); });
    });
    if (delta_ && work().options().delta() == Delta::always) {
      delta_->prepare();  // the answers come later than that about the part
    }
  }

  // A part that must not remain has its own directory. Without one, the device creates the removed
  // part again when it executes a late "append" of a lost connection.
  void createDirectory() {
    directory_.emplace(work(), partDirectoryPath(item_.target));
    directory_->create([this](bool done) {
      if (!done) {
        directory_.reset();
      }
      setPart(done ? directory_->path() + "/part" : partPath(item_.target));
      leavePart();
      beginAt(0);
    });
  }

  void leavePart() {
    work().leaves(directory_ ? directory_->removal() : Request({"unlink", part_}));
  }

  void setPart(std::string path) {
    part_ = std::move(path);
    packed_ = part_ + ".gz";
    if (mayUseDelta(work().options().delta(), item_.there, file_->reader.size())) {
      delta_ = std::make_unique<DeltaTransfer>(work(), file_->reader,
                                               DeltaFiles{item_.target, item_.there->size, part_});
    }
  }

  void beginAt(std::uint64_t offset) {
    if (!delta_) {
      sendFrom(offset);
      return;
    }
    createPart(offset);
    if (work().options().delta() == Delta::always) {
      assemble(offset);
      return;
    }
    rate_ = std::make_unique<LineRate>(work(), file_->reader, part_, item_.target);
    rate_->measure(offset, [this](std::uint64_t sent, bool slow) {
      slow ? assemble(sent) : continueAt(sent);
    });
  }

  // Without the differences, a part is of no use to the next transfer.
  void assemble(std::uint64_t offset) {
    leavePart();
    steps_ = 0;
    const auto last = [this] { return lastItem(); };
    delta_->assemble(offset, last, [this, offset](const DeltaTransfer::End& end) {
      if (end.error) {
        drop(*end.error);
      } else if (end.assembled) {
        endPieces();
      } else if (const auto changed = file_->reader.changed()) {
        drop(*changed);
      } else {
        sendWhole(offset, end);
      }
    });
  }

  void sendWhole(std::uint64_t offset, const DeltaTransfer::End& end) {
    work().note(item_.target + ": sent whole: " + end.why);
    if (work().options().resume()) {
      work().leaves(std::nullopt);
    }
    if (end.untouched) {
      continueAt(offset);
    } else {
      work().resumedAt(std::nullopt);
      sendFrom(0);
    }
  }

  // The part has mode 0600 while it is written, so that its content is never readable by users who
  // must not read the file.
  void createPart(std::uint64_t offset) {
    if (offset == 0) {
      work().ask(Request({"write", part_, ""}), [this](const Reply& reply) { check(reply); });
      work().ask(Request({"stat", part_}),
                 [this](const Reply& reply) { notePlace(statIn(reply)); });
    }
    work().ask(Request::exec({"chmod", "0600", "--", part_}, 0),
               [this](const Reply&) { beginTimes(); });
  }

  void sendFrom(std::uint64_t offset) {
    createPart(offset);
    sendRest(offset);
  }

  // The part exists, and all requests were answered.
  void continueAt(std::uint64_t offset) {
    beginTimes();
    sendRest(offset);
  }

  void beginTimes() {
    work().pieces.begin(PieceSizes::Clock::now());
    work().packing.begin(Packing::Clock::now());
  }

  void sendRest(std::uint64_t offset) {
    work().pieces.setRoundTrip(work().fastestAnswer());
    pieces_ = Pieces(offset, file_->reader.size(), 0);
    steps_ = 0;
    following_.clear();
    if (!work().packing.asks()) {
      sendPieces();
      return;
    }
    work().ask(askForPackers(), [this](const Reply& reply) {
      setUnpacks(reply);
      beginTimes();
      sendPieces();
    });
  }

  void sendPieces() {
    work().pipe([this] { return nextItem(); }, [this] { return window(); },
                [this] { endPieces(); });
  }

  // Compressing must not keep the loop from sending: little is compressed ahead.
  [[nodiscard]] std::size_t window() const {
    constexpr std::size_t kPackedAhead = 2097152;
    const std::size_t bytes = work().pieces.window();
    return work().packing.next() == Packer::none ? bytes : std::min(bytes, kPackedAhead);
  }

  void notePlace(const std::optional<Stat>& part) {
    if (part) {
      work().pieces.setInMemory(isInMemory(work().mounts, part->dev));
    }
  }

  // The last requests follow the last piece at once. After a failure they have no effect: the part
  // is removed.
  std::optional<Pipeline::Item> nextItem() {
    if (error_) {
      return std::nullopt;
    }
    if (!following_.empty()) {
      Pipeline::Item next = std::move(following_.front());
      following_.pop_front();
      return next;
    }
    if (work().packing.asks()) {
      return last(askForPackers(), [this](const Reply& reply) { setUnpacks(reply); });
    }
    const std::size_t most = std::min(work().pieces.next(), work().packing.most());
    const std::optional<Piece> piece = pieces_.next(most);
    if (!piece) {
      return lastItem();
    }
    return packedItem(*piece);
  }

  // What bzip2 does not make smaller, gzip may.
  std::optional<Pipeline::Item> packedItem(const Piece& piece) {
    Packer packer = work().packing.next();
    std::string packed = pack(piece, packer);
    if (packed.empty() && packer == Packer::bzip2) {
      work().packing.sent(piece.size, packer);
      packer = Packer::gzip;
      packed = pack(piece, packer);
    }
    work().packing.sent(piece.size, packed.empty() ? Packer::none : packer);
    return packed.empty() ? pieceItem(piece) : packedItem(piece, packer, std::move(packed));
  }

  std::optional<Pipeline::Item> pieceItem(const Piece& piece) {
    const auto handle = [this, size = piece.size](const Reply& reply) {
      check(reply);
      error_ = error_ ? error_ : file_->error;
      pieceDone(size, Packer::none);
      return !error_;
    };
    return Pipeline::Item{LateRequest::with({"append", part_}, contentOf(piece)), piece.size,
                          handle};
  }

  // The bytes of a frame follow their announced number. In place of bytes that cannot be read,
  // zeros are sent, and the part is removed later. A request that is queued may outlive this
  // object.
  [[nodiscard]] LateContent contentOf(const Piece& piece) const {
    const auto read = [file = file_, begin = piece.offset](std::uint64_t offset, std::size_t count,
                                                           std::string& bytes) {
      auto error = file->reader.read(begin + offset, count, bytes);
      if (error) {
        bytes.assign(count, '\0');
        file->error = file->error ? file->error : std::move(error);
      }
    };
    return {piece.size, read};
  }

  void pieceDone(std::size_t size, Packer packer) {
    work().pieces.answered(size, PieceSizes::Clock::now());
    work().packing.answered(size, packer, Packing::Clock::now());
    work().count(size, item_.target);
  }

  // Creates the file for compressed pieces, which only its owner can read, and unpacks an empty
  // one with each program.
  Request askForPackers() {
    work().packing.asked();
    notePacked();
    std::string script =
        "rm -f -- \"$0\" && umask 077 && printf '\\037\\213\\010\\000\\000\\000\\000\\000\\000"
        "\\003\\003\\000\\000\\000\\000\\000\\000\\000\\000\\000' >\"$0\" && gzip -dc <\"$0\"";
    if (work().options().bzip2()) {
      script +=
          " && printf 'BZh9\\027rE8P\\220\\000\\000\\000\\000' >\"$0\""
          " && { bunzip2 -c <\"$0\" 2>/dev/null && echo bunzip2 || :; }";
    }
    return Request::exec({"/bin/sh", "-c", script, packed_}, 0);
  }

  void setUnpacks(const Reply& reply) {
    const bool bzip2 = work().options().bzip2() && reply.output() == "bunzip2\n";
    work().packing.setUnpacks(reply.ok(), bzip2);
  }

  void notePacked() {
    hasPacked_ = true;
    if (directory_) {
      return;
    }
    std::vector<std::string> remove{"rm", "-f", "--", packed_};
    if (!work().options().resume()) {
      remove.push_back(part_);
    }
    work().leaves(Request::exec(remove, 0));
  }

  // Nothing if the piece does not become clearly smaller, or cannot be read: it is sent as it is.
  std::string pack(const Piece& piece, Packer packer) const {
    std::string bytes;
    if (packer == Packer::none || file_->reader.read(piece.offset, piece.size, bytes)) {
      return "";
    }
    const TransferOptions& options = work().options();
    std::string packed =
        packer == Packer::bzip2 ? options.bzip2()(bytes) : options.compression()(bytes);
    return packed.size() < piece.size / 10 * 9 ? packed : "";
  }

  // The device unpacks to the end of the part. The compressed file is emptied, so that it cannot be
  // unpacked twice, and keeps its mode. The empty "append" writes the part to the disk.
  Pipeline::Item packedItem(const Piece& piece, Packer packer, std::string&& packed) {
    if (!hasPacked_) {
      createPacked();
    }
    const std::size_t weight = packed.size();
    const auto checked = [this](const Reply& reply) {
      check(reply);
      return !error_;
    };
    following_.push_back({Request({"write", packed_}, std::move(packed)), weight, checked});
    const bool bzip2 = packer == Packer::bzip2;
    const std::string script =
        std::string(bzip2 ? "bunzip2 -c" : "gzip -dc") + " <\"$0\" >>\"$1\" && : >\"$0\"";
    const auto unpacks = [this, program = bzip2 ? "bunzip2" : "gzip"](const Reply& reply) {
      return unpacked(program, reply);
    };
    following_.push_back({Request::exec({"/bin/sh", "-c", script, packed_, part_}, 0), 0, unpacks});
    const auto synced = [this, packer, size = piece.size, weight](const Reply& reply) {
      check(reply);
      work().save(size - weight);
      pieceDone(size, packer);
      return !error_;
    };
    following_.push_back({Request({"append", part_, ""}), 0, synced});
    Pipeline::Item first = std::move(following_.front());
    following_.pop_front();
    return first;
  }

  // For a further file: the device is known to unpack.
  void createPacked() {
    notePacked();
    work().ask(Request({"write", packed_, ""}), [this](const Reply& reply) { check(reply); });
    work().tell(Request::exec({"chmod", "0600", "--", packed_}, 0));
  }

  bool unpacked(const char* program, const Reply& reply) {
    if (!reply.ok() && !error_) {
      error_ = Error(Kind::device, Cause::programFailed,
                     item_.target + ": " + programTrouble(program, reply));
    }
    return !error_;
  }

  std::optional<Pipeline::Item> lastItem() {
    switch (steps_++) {
      case 0:
        return last(Request({"stat", part_}),
                    [this](const Reply& reply) { partThere_ = statIn(reply); });
      case 1:
        return last(setMode(), [this](const Reply& reply) { modeSet_ = reply; });
      case 2:
        return last(setTime(true), [this](const Reply& reply) { timeSet_ = reply.ok(); });
      case 3:
        if (hasPacked_) {
          return last(Request({"unlink", packed_}), [](const Reply&) {});
        }
        return std::nullopt;
      default:
        return std::nullopt;
    }
  }

  static Pipeline::Item last(Request request, std::function<void(const Reply&)> take) {
    return {std::move(request), 0, [take = std::move(take)](const Reply& reply) {
              take(reply);
              return true;
            }};
  }

  [[nodiscard]] Request setMode() const {
    return Request::exec({"chmod", octalMode(item_.entry->mode), "--", part_}, 0);
  }

  [[nodiscard]] Request setTime(bool fractions) const {
    const std::string time = touchTime(item_.entry->mtime, fractions);
    return Request::exec({"touch", "-c", "-d", time, "--", part_}, 0);
  }

  void check(const Reply& reply) {
    if (!reply.ok() && !error_) {
      error_ = reply.error(item_.target);
    }
  }

  // Another client may have written to the part too: check its size.
  void endPieces() {
    error_ = error_ ? error_ : file_->reader.changed();
    if (error_) {
      drop(*error_);
    } else if (partThere_ && partThere_->size == file_->reader.size()) {
      finish();
    } else if (!again_) {
      // The device may have executed late requests of an earlier, lost connection.
      again_ = true;
      work().resumedAt(std::nullopt);
      sendFrom(0);
    } else {
      drop(Error(Kind::device, Cause::incomplete, item_.target + ": incomplete on the device"));
    }
  }

  // Owner, mode and time are set before the rename. A change of the owner clears the set-user-ID
  // bit.
  void finish() {
    const auto& there = item_.there;
    if (there && (there->uid != partThere_->uid || there->gid != partThere_->gid)) {
      const std::string owner = std::to_string(there->uid) + ":" + std::to_string(there->gid);
      run(Request::exec({"chown", owner, "--", part_}, 0), "owner not preserved");
      run(setMode(), "modes not preserved");
    } else if (!modeSet_.ok()) {
      work().warnOnce("modes not preserved: " + programTrouble("chmod", modeSet_));
    }
    if (!timeSet_) {
      run(setTime(false), "times not preserved");
    }
    rename();
  }

  void run(const Request& request, const std::string& what) {
    work().ask(request, [this, what, program = request.words()[1]](const Reply& reply) {
      if (!reply.ok()) {
        work().warnOnce(what + ": " + programTrouble(program, reply));
      }
    });
  }

  void rename() {
    work().ask(Request({"rename", part_, item_.target}), [this](const Reply& reply) {
      if (!reply.ok()) {
        drop(reply.error(item_.target));
        return;
      }
      item_.complete = true;
      work().fileDone();
      leave();
    });
  }

  void drop(const Error& error) {
    if (hasPacked_) {
      work().tell(Request({"unlink", packed_}));
    }
    work().ask(Request({"unlink", part_}), [this, error](const Reply&) {
      work().failItem(item_, error);
      leave();
    });
  }

  void leave() {
    file_ = std::make_shared<SourceFile>();
    if (directory_) {
      directory_->remove(next_);
      return;
    }
    work().leaves(std::nullopt);
    next_();
  }

  PushItem& item_;
  Next next_;
  std::shared_ptr<SourceFile> file_ = std::make_shared<SourceFile>();
  std::optional<StagingDirectory> directory_;  // of the part, unless it may be resumed
  std::string part_;
  std::string packed_;                    // the device's file for a compressed piece
  bool hasPacked_ = false;                // it exists
  std::deque<Pipeline::Item> following_;  // the next requests for a compressed piece
  std::unique_ptr<DeltaTransfer> delta_;
  std::unique_ptr<LineRate> rate_;
  Pieces pieces_;
  int steps_ = 0;                  // requests after the last piece
  std::optional<Stat> partThere_;  // after the last piece
  Reply modeSet_;
  bool timeSet_ = false;
  bool again_ = false;  // sent again from the beginning
  std::optional<Error> error_;
};

class SendLargeFiles : public PushStage {
 public:
  using PushStage::PushStage;

  void start(Next next) override {
    Stages files;
    for (PushItem& item : work().large) {
      files.push_back(std::make_unique<SendLargeFile>(work(), item));
    }
    if (!files.empty()) {
      askAboutDevice();
    }
    runner_.run(std::move(files), std::move(next));
  }

 private:
  // The device holds a piece in memory while it receives it, and writes it to the disk then.
  void askAboutDevice() {
    work().ask(Request({"read", "/proc/meminfo"}), [this](const Reply& reply) {
      if (const auto bytes = availableMemory(reply.ok() ? reply.output() : "")) {
        work().pieces.setDeviceMemory(*bytes);
      }
    });
    work().ask(Request({"read", "/proc/self/mountinfo"}),
               [this](const Reply& reply) { work().mounts = reply.ok() ? reply.output() : ""; });
  }

  StageRunner runner_;
};

}  // namespace

std::unique_ptr<Stage> sendLargeFiles(PushWork& work) {
  return std::make_unique<SendLargeFiles>(work);
}

}  // namespace runel
