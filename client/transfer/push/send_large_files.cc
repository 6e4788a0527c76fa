// SPDX-License-Identifier: Apache-2.0
// Sends a large file in pieces to a part in the target directory, which is renamed when it is
// complete. An interrupted transfer is resumed if the part matches this file.
#include "client/transfer/hidden_paths.h"
#include "client/transfer/local_file.h"
#include "client/transfer/parts.h"
#include "client/transfer/programs.h"
#include "client/transfer/push/stages.h"

namespace runel {
namespace {

class SendLargeFile : public PushStage {
 public:
  SendLargeFile(PushWork& work, PushItem& item) : PushStage(work), item_(item) {}

  void start(Next next) override {
    next_ = std::move(next);
    if (const auto error = reader_.open(placeOf(*item_.entry))) {
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
    part_ = partPath(item_.target);
    if (!work().options().resume()) {
      work().leaves(Request({"unlink", part_}));
      sendFrom(0);
      return;
    }
    work().ask(Request({"stat", part_}), [this](const Reply& reply) {
      const std::optional<Stat> st = statIn(reply);
      if (!st || !st->isRegular() || st->size == 0 || st->size > reader_.size()) {
        sendFrom(0);
        return;
      }
      checkPart(work(), Request::exec({"sha256sum", "--", part_}, 0), placeOf(*item_.entry),
                st->size, item_.target, [this](std::uint64_t offset) { sendFrom(offset); });
    });
  }

  // Create the part empty and with mode 0600, so that its content is never readable by users who
  // must not read the file.
  void sendFrom(std::uint64_t offset) {
    if (offset == 0) {
      work().ask(Request({"write", part_, ""}), [this](const Reply& reply) { check(reply); });
      work().tell(Request::exec({"chmod", "0600", "--", part_}, 0));
    }
    pieces_ = Pieces(offset, reader_.size(), work().pieceBytes());
    work().pipe([this] { return nextPiece(); }, [this] { endPieces(); });
  }

  std::optional<Pipeline::Item> nextPiece() {
    const std::optional<Piece> piece = error_ ? std::nullopt : pieces_.next();
    if (!piece) {
      return std::nullopt;
    }
    std::string bytes;
    error_ = reader_.read(piece->offset, piece->size, bytes);
    if (error_) {
      return std::nullopt;
    }
    const auto handle = [this, size = piece->size](const Reply& reply) {
      check(reply);
      work().count(size, item_.target);
      return reply.ok();
    };
    return Pipeline::Item{Request({"append", part_}, std::move(bytes)), piece->size, handle};
  }

  void check(const Reply& reply) {
    if (!reply.ok() && !error_) {
      error_ = reply.error(item_.target);
    }
  }

  // Another client may have written to the part too: check its size.
  void endPieces() {
    error_ = error_ ? error_ : reader_.changed();
    if (error_) {
      drop(*error_);
      return;
    }
    work().ask(Request({"stat", part_}), [this](const Reply& reply) {
      const std::optional<Stat> st = statIn(reply);
      if (st && st->size == reader_.size()) {
        finish(*st);
      } else if (!again_) {
        // The device may have executed late requests of an earlier, lost connection.
        again_ = true;
        work().resumedAt(std::nullopt);
        sendFrom(0);
      } else {
        drop(Error(Kind::device, Cause::incomplete, item_.target + ": incomplete on the device"));
      }
    });
  }

  // Owner, mode and time are set before the rename.
  void finish(const Stat& part) {
    const auto& there = item_.there;
    if (there && (there->uid != part.uid || there->gid != part.gid)) {
      run({"chown", std::to_string(there->uid) + ":" + std::to_string(there->gid), "--", part_},
          "owner not preserved");
    }
    run({"chmod", octalMode(item_.entry->mode), "--", part_}, "modes not preserved");
    const Timestamp& mtime = item_.entry->mtime;
    work().ask(Request::exec({"touch", "-c", "-d", touchTime(mtime, true), "--", part_}, 0),
               [this, seconds = touchTime(mtime, false)](const Reply& touched) {
                 if (!touched.ok()) {
                   run({"touch", "-c", "-d", seconds, "--", part_}, "times not preserved");
                 }
                 rename();
               });
  }

  void run(const std::vector<std::string>& words, const std::string& what) {
    work().ask(Request::exec(words, 0), [this, what, program = words[0]](const Reply& reply) {
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
    work().ask(Request({"unlink", part_}), [this, error](const Reply&) {
      work().failItem(item_, error);
      leave();
    });
  }

  void leave() {
    reader_.close();
    work().leaves(std::nullopt);
    next_();
  }

  PushItem& item_;
  Next next_;
  LocalReader reader_;
  std::string part_;
  Pieces pieces_;
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
    runner_.run(std::move(files), std::move(next));
  }

 private:
  StageRunner runner_;
};

}  // namespace

std::unique_ptr<Stage> sendLargeFiles(PushWork& work) {
  return std::make_unique<SendLargeFiles>(work);
}

}  // namespace runel
