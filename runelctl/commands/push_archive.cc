// SPDX-License-Identifier: Apache-2.0
// Many small files as one archive, unpacked by the device's tar in a hidden folder beside them and
// renamed one by one: one synchronised write instead of thousands, and each file is the old or the
// new one as ever. Whatever does not work this way is sent file by file.
#include <algorithm>
#include <utility>

#include "client/sha256.h"
#include "commands/archive.h"
#include "commands/push_parts.h"

namespace zell::ctl {
namespace {

// From so many on it pays.
constexpr std::size_t kWorthIt = 8;
constexpr std::uint64_t kSmall = 262144;
constexpr std::uint32_t kOthers = 0077;
constexpr std::size_t kNameDigits = 16;

// The same for the same place, so that what a lost connection left behind goes the next time.
std::string stagePath(const std::string& target) {
  const std::string folder = folderOf(target);
  Sha256 hash;
  hash.add(folder);
  return joinPath(folder, ".runelctl-" + hash.finish().substr(0, kNameDigits) + ".d");
}

// Reads a file that must not change meanwhile.
bool readSteady(const std::string& path, std::string& content) {
  LocalReader reader;
  return !reader.open(path) && reader.size() <= kSmall &&
         !reader.read(0, static_cast<std::size_t>(reader.size()), content) && !reader.changed();
}

}  // namespace

// A file that is nobody else's business goes this way too: it has its mode before it has its name.
void PushJob::sendArchives() {
  next_ = 0;
  const bool secret = std::any_of(small_.begin(), small_.end(), [](const Item& item) {
    return (item.entry->mode & kOthers) == 0 && !item.there;
  });
  if (small_.size() >= kWorthIt || secret) {
    sendArchive();
  } else {
    sendSmallFiles();
  }
}

void PushJob::sendArchive() {
  batch_ = std::make_unique<Batch>();
  batch_->stage = stagePath(small_.front().target);
  std::string content = packArchive();
  if (batch_->items.empty()) {
    sendSmallFiles();
    return;
  }
  ask(execRequest({"rm", "-r", "-f", "--", batch_->stage}, 0), [](const Reply&) {});
  ask(execRequest({"mkdir", "-m", "0700", "--", batch_->stage}, 0), [](const Reply&) {});
  ask(request({"write", batch_->stage + "/archive", std::move(content)}),
      [this](const Reply& reply) {
        if (!alive(reply)) {
          return;
        }
        if (reply.ok()) {
          unpackArchive();
        } else {
          leaveArchives();
        }
      });
}

// What is a link there is left to "write", which goes where it leads.
std::string PushJob::packArchive() {
  Archive archive;
  std::string content;
  for (; next_ < small_.size() && archive.size() < pieceBytes(); ++next_) {
    Item& item = small_[next_];
    if (item.entry->size > kSmall || (item.there && !item.there->isRegular()) ||
        !readSteady(item.entry->path, content)) {
      continue;
    }
    const Archive::About about{item.entry->mode, item.there ? item.there->uid : 0,
                               item.there ? item.there->gid : 0, item.entry->mtime};
    archive.add(std::to_string(batch_->items.size()), about, content);
    batch_->items.push_back(&item);
  }
  return archive.finish();
}

void PushJob::unpackArchive() {
  const std::string archive = batch_->stage + "/archive";
  ask(execRequest({"tar", "-x", "-p", "-f", archive, "-C", batch_->stage}, 0),
      [this](const Reply& reply) {
        if (!alive(reply)) {
          return;
        }
        if (reply.ok()) {
          synchronise();
        } else {
          leaveArchives();
        }
      });
}

// A rename may reach the disk before the content does, and a power cut would then leave an empty
// file where the old one was. The whole device's disks where sync knows no single ones.
void PushJob::synchronise() {
  ask(execRequest({"sync", "-f", batch_->stage}, 0), [this](const Reply& reply) {
    if (!reply.ok()) {
      ask(execRequest({"sync"}, 0), [](const Reply&) {});
    }
    if (alive(reply)) {
      renameUnpacked();
    }
  });
}

void PushJob::renameUnpacked() {
  const auto source = [this, at = std::size_t{0}]() mutable -> std::optional<Pipeline::Item> {
    if (at == batch_->items.size()) {
      return std::nullopt;
    }
    Item& item = *batch_->items[at];
    const std::string from = batch_->stage + "/" + std::to_string(at++);
    return Pipeline::Item{request({"rename", from, item.target}), 0,
                          [this, &item](const Reply& reply) {
                            item.complete = reply.ok();
                            if (reply.ok()) {
                              fileDone();
                              count(item.entry->size, item.target);
                            }
                            return alive(reply);
                          }};
  };
  pipe(source, [this] {
    if (next_ < small_.size()) {
      sendArchive();
    } else {
      leaveArchives();
    }
  });
}

void PushJob::leaveArchives() {
  ask(execRequest({"rm", "-r", "-f", "--", batch_->stage}, 0), [this](const Reply& reply) {
    if (alive(reply)) {
      sendSmallFiles();
    }
  });
}

}  // namespace zell::ctl
