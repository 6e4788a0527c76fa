// SPDX-License-Identifier: Apache-2.0
// Sends many small files as one archive. The device's tar unpacks it in a hidden directory next to
// the targets, and the files are renamed one by one. This needs one synchronised write instead of
// thousands, and each file is still replaced atomically. The other files are sent one by one. At
// the end, an archive of the directories sets their modes and times.
#include <algorithm>
#include <utility>

#include "client/core/sha256.h"
#include "client/transfer/archive.h"
#include "commands/push_parts.h"

namespace runelctl {
namespace {

using runel::Archive;

// An archive of fewer files is slower than single requests.
constexpr std::size_t kWorthIt = 8;
constexpr std::uint64_t kSmall = 262144;
constexpr std::uint32_t kOthers = 0077;
constexpr std::size_t kNameDigits = 16;

// The same path for the same target, so that the next transfer removes what a lost connection left.
std::string stagePath(const std::string& target) {
  const std::string directory = runel::directoryOf(target);
  runel::Sha256 hash;
  hash.add(directory);
  return runel::joinPath(directory, ".runelctl-" + hash.finish().substr(0, kNameDigits) + ".d");
}

// Reads a file. Returns false if it changes meanwhile.
bool readSteady(const std::string& path, std::string& content) {
  LocalReader reader;
  return !reader.open(path) && reader.size() <= kSmall &&
         !reader.read(0, static_cast<std::size_t>(reader.size()), content) && !reader.changed();
}

}  // namespace

// A private file is always sent in an archive: its mode is set before the rename, so that other
// users can never read it under its final name.
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
  if (!batch_) {
    batch_ = std::make_unique<Batch>();
    batch_->stage = stagePath(small_.front().target);
  }
  std::string content = packArchive();
  if (batch_->items.empty()) {
    leaveStage([this] { sendSmallFiles(); });
    return;
  }
  unpack(std::move(content), {"-C", batch_->stage}, [this](bool done) {
    if (done) {
      synchronise();
    } else {
      leaveStage([this] { sendSmallFiles(); });
    }
  });
}

// A target that is a symbolic link is left to "write", which follows the link.
std::string PushJob::packArchive() {
  Archive archive;
  std::string content;
  batch_->items.clear();
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

// All steps are pipelined. Files that an earlier run left there are removed first.
void PushJob::unpack(std::string&& archive, const std::vector<std::string>& options,
                     std::function<void(bool done)> next) {
  const std::string path = batch_->stage + "/archive";
  if (!std::exchange(batch_->staged, true)) {
    ask(runel::Request::exec({"rm", "-r", "-f", "--", batch_->stage}, 0),
        [](const runel::Reply&) {});
    ask(runel::Request::exec({"mkdir", "-m", "0700", "--", batch_->stage}, 0),
        [](const runel::Reply&) {});
  }
  ask(runel::Request({"write", path}, std::move(archive)),
      [this](const runel::Reply& reply) { batch_->written = reply.ok(); });
  std::vector<std::string> tar{"tar", "-x", "-p", "-f", path};
  tar.insert(tar.end(), options.begin(), options.end());
  ask(runel::Request::exec(tar, 0), [this, next = std::move(next)](const runel::Reply& reply) {
    if (alive(reply)) {
      next(reply.ok() && batch_->written);
    }
  });
}

// The rename may reach the disk before the content. After a power failure the file would be empty.
// Without "sync -f", all file systems of the device are synchronised.
void PushJob::synchronise() {
  ask(runel::Request::exec({"sync", "-f", batch_->stage}, 0), [this](const runel::Reply& reply) {
    if (!reply.ok()) {
      ask(runel::Request::exec({"sync"}, 0), [](const runel::Reply&) {});
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
    return Pipeline::Item{runel::Request({"rename", from, item.target}), 0,
                          [this, &item](const runel::Reply& reply) {
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
      leaveStage([this] { sendSmallFiles(); });
    }
  });
}

void PushJob::leaveStage(std::function<void()> next) {
  if (!batch_->staged) {
    batch_.reset();
    next();
    return;
  }
  ask(runel::Request::exec({"rm", "-r", "-f", "--", batch_->stage}, 0),
      [this, next = std::move(next)](const runel::Reply& reply) {
        if (alive(reply)) {
          batch_.reset();
          next();
        }
      });
}

// One tar sets the modes and times of all directories; touch would run once for each of them. chmod
// and touch process the remaining directories.
void PushJob::setDirectories() {
  const auto first = std::find_if(directories_.begin(), directories_.end(),
                                  [](const Item& item) { return !item.complete; });
  if (first == directories_.end() || !directoriesChanged_) {
    setModes();
    return;
  }
  const std::string base = runel::directoryOf(first->target);
  batch_ = std::make_unique<Batch>();
  batch_->stage = stagePath(first->target);
  std::string content = packDirectories(base);
  if (batch_->items.size() < kWorthIt) {
    leaveStage([this] { setModes(); });
    return;
  }
  unpack(std::move(content), {"-o", "-C", base}, [this](bool done) {
    for (Item* item : batch_->items) {
      item->complete = done;
    }
    leaveStage([this] { setModes(); });
  });
}

// The trailing dot follows a symbolic link to a directory.
std::string PushJob::packDirectories(const std::string& base) {
  Archive archive;
  const std::string before = base == "/" ? base : base + "/";
  for (Item& item : directories_) {
    const bool below =
        item.target.size() > before.size() && item.target.compare(0, before.size(), before) == 0;
    const std::string name = below ? item.target.substr(before.size()) + "/." : "";
    if (!item.complete && !name.empty() && name.size() <= Archive::kMostName) {
      archive.addDirectory(name, {item.entry->mode, 0, 0, item.entry->mtime});
      batch_->items.push_back(&item);
    }
  }
  return archive.finish();
}

}  // namespace runelctl
