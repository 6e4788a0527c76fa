// SPDX-License-Identifier: Apache-2.0
// Sends a large file in pieces to a hidden file in the target directory, which is renamed when it
// is complete. An interrupted transfer is resumed if the partial file matches this file.
#include <algorithm>
#include <utility>

#include "commands/push_parts.h"

namespace runelctl {

void PushJob::sendBigFiles() {
  next_ = 0;
  bigFileDone();
}

// Starts the next file.
void PushJob::bigFileDone() {
  if (next_ == big_.size()) {
    makeLinks();
    return;
  }
  Item& item = big_[next_++];
  bigFile_ = std::make_unique<BigFile>();
  bigFile_->item = &item;
  if (const auto error = bigFile_->reader.open(item.entry->path)) {
    itemFailed(item, *error);
    bigFileDone();
  } else if (item.there && item.there->isLink()) {
    ask(runel::Request({"realpath", item.target}), [this](const runel::Reply& reply) {
      if (alive(reply)) {
        lookBehindLink(reply.ok() ? reply.output() : bigFile_->item->target);
      }
    });
  } else {
    beginBigFile();
  }
}

void PushJob::lookBehindLink(const std::string& target) {
  bigFile_->item->target = target;
  ask(runel::Request({"lstat", target}), [this](const runel::Reply& reply) {
    if (alive(reply)) {
      bigFile_->item->there = reply.ok() ? runel::parseStat(reply.output()) : std::nullopt;
      beginBigFile();
    }
  });
}

void PushJob::beginBigFile() {
  bigFile_->part = partPath(bigFile_->item->target);
  if (plan_->resume) {
    ask(runel::Request({"stat", bigFile_->part}),
        [this](const runel::Reply& reply) { checkPart(reply); });
  } else {
    sendPieces();
  }
}

void PushJob::checkPart(const runel::Reply& reply) {
  if (!alive(reply)) {
    return;
  }
  const std::optional<runel::Stat> st =
      reply.ok() ? runel::parseStat(reply.output()) : std::nullopt;
  if (!st || !st->isRegular() || st->size == 0 || st->size > bigFile_->reader.size()) {
    sendPieces();
    return;
  }
  ask(runel::Request::exec({"sha256sum", "--", bigFile_->part}, 0),
      [this, size = st->size](const runel::Reply& sum) {
        if (!alive(sum)) {
          return;
        }
        const auto sums = parseChecksums(sum.output(), 1);
        if (sum.ok() && sums && localSha256(bigFile_->item->entry->path, size) == sums->front()) {
          bigFile_->offset = size;
          skip(size, bigFile_->item->target);
          report().result()["resumed_at"] = size;
        }
        sendPieces();
      });
}

// Create the partial file empty and with mode 0600, so that its content is never readable by users
// who must not read the file.
void PushJob::sendPieces() {
  if (bigFile_->offset == 0) {
    ask(runel::Request({"write", bigFile_->part, ""}), [this](const runel::Reply& reply) {
      if (!reply.ok() && reply.answered()) {
        bigFile_->error = reply.error(bigFile_->item->target);
      }
    });
    ask(runel::Request::exec({"chmod", "0600", "--", bigFile_->part}, 0),
        [](const runel::Reply&) {});
  }
  pipe([this] { return nextPiece(); }, [this] { endPieces(); });
}

std::optional<Pipeline::Item> PushJob::nextPiece() {
  BigFile& file = *bigFile_;
  const std::uint64_t left = file.reader.size() - std::min(file.offset, file.reader.size());
  const auto size = static_cast<std::size_t>(std::min<std::uint64_t>(left, pieceBytes()));
  std::string bytes;
  if (!file.error && size > 0) {
    file.error = file.reader.read(file.offset, size, bytes);
  }
  if (file.error || size == 0) {
    return std::nullopt;
  }
  file.offset += size;
  const auto handle = [this, size](const runel::Reply& reply) {
    if (!alive(reply)) {
      return false;
    }
    if (!reply.ok() && !bigFile_->error) {
      bigFile_->error = reply.error(bigFile_->item->target);
    }
    count(size, bigFile_->item->target);
    return reply.ok();
  };
  return Pipeline::Item{runel::Request({"append", file.part}, std::move(bytes)), size, handle};
}

void PushJob::endPieces() {
  BigFile& file = *bigFile_;
  if (!file.error && file.reader.changed()) {
    file.error = file.reader.changedError();
  }
  if (file.error) {
    dropPart(*file.error);
    return;
  }
  // Another client may have written to the partial file too: check its size.
  ask(runel::Request({"stat", file.part}),
      [this](const runel::Reply& reply) { finishPart(reply); });
}

// Sets mode, owner and time before the rename.
void PushJob::finishPart(const runel::Reply& reply) {
  if (!alive(reply)) {
    return;
  }
  const std::optional<runel::Stat> st =
      reply.ok() ? runel::parseStat(reply.output()) : std::nullopt;
  const Item& item = *bigFile_->item;
  const bool whole = st && st->size == bigFile_->reader.size();
  if (!whole && !bigFile_->again) {
    // The device may have executed late requests of an earlier, lost connection: send the file
    // again.
    bigFile_->again = true;
    bigFile_->offset = 0;
    report().result().erase("resumed_at");
    sendPieces();
    return;
  }
  if (!whole) {
    dropPart({Fault::task, item.target + ": incomplete on the device",
              "check whether another runelctl sends the same file", 0});
    return;
  }
  const auto ask = [this](const std::vector<std::string>& words, const char* what) {
    Job::ask(runel::Request::exec(words, 0),
             [this, what, program = words[0]](const runel::Reply& done) {
               if (!done.ok() && done.answered()) {
                 warnOnce(std::string(what) + ": " + programTrouble(program, done));
               }
             });
  };
  const std::string& part = bigFile_->part;
  if (item.there && (item.there->uid != st->uid || item.there->gid != st->gid)) {
    ask({"chown", std::to_string(item.there->uid) + ":" + std::to_string(item.there->gid), "--",
         part},
        "owner not preserved");
  }
  ask({"chmod", octalMode(item.entry->mode), "--", part}, "modes not preserved");
  const std::string seconds = touchTime(item.entry->mtime, false);
  Job::ask(runel::Request::exec(
               {"touch", "-c", "-d", touchTime(item.entry->mtime, true), "--", part}, 0),
           [this, seconds, ask](const runel::Reply& touched) {
             if (!touched.ok()) {
               ask({"touch", "-c", "-d", seconds, "--", bigFile_->part}, "times not preserved");
             }
             renamePart();
           });
}

void PushJob::renamePart() {
  ask(runel::Request({"rename", bigFile_->part, bigFile_->item->target}),
      [this](const runel::Reply& renamed) {
        if (!alive(renamed)) {
          return;
        }
        if (!renamed.ok()) {
          dropPart(renamed.error(bigFile_->item->target));
          return;
        }
        bigFile_->item->complete = true;
        fileDone();
        bigFileDone();
      });
}

void PushJob::dropPart(const Error& error) {
  ask(runel::Request({"unlink", bigFile_->part}), [this, error](const runel::Reply& reply) {
    if (alive(reply)) {
      itemFailed(*bigFile_->item, error);
      bigFileDone();
    }
  });
}

}  // namespace runelctl
