// SPDX-License-Identifier: Apache-2.0
// Sends many small files as one archive. The device's tar unpacks it in a hidden directory next to
// the targets, and the files are renamed one by one. This needs one synchronised write instead of
// thousands, and each file is still replaced atomically. The other files are left to the next
// stage.
#include <algorithm>

#include "client/transfer/archive.h"
#include "client/transfer/hidden_paths.h"
#include "client/transfer/local_file.h"
#include "client/transfer/push/stages.h"
#include "client/transfer/push/staging_directory.h"

namespace runel {
namespace {

// An archive of fewer files is slower than single requests.
constexpr std::size_t kWorthAnArchive = 8;
constexpr std::uint64_t kLargestInArchive = 262144;
constexpr std::uint32_t kOthers = 0077;

class SendArchives : public PushStage {
 public:
  using PushStage::PushStage;

  // A private file is always sent in an archive: its mode is set before the rename, so that other
  // users can never read it under its final name.
  void start(Next next) override {
    const PushItems& files = work().small;
    const bool secret = std::any_of(files.begin(), files.end(), [](const PushItem& item) {
      return (item.entry->mode & kOthers) == 0 && !item.there;
    });
    if (files.size() < kWorthAnArchive && !secret) {
      next();
      return;
    }
    next_ = std::move(next);
    staging_.emplace(work(), stagingPath(files.front().target));
    sendArchive();
  }

 private:
  void sendArchive() {
    std::string archive = pack();
    if (packed_.empty()) {
      staging_->remove(next_);
      return;
    }
    staging_->unpack(std::move(archive), {"-C", staging_->path()}, [this](bool done) {
      if (done) {
        synchronise();
      } else {
        staging_->remove(next_);
      }
    });
  }

  // A target that is a symbolic link is left to "write", which follows the link. So is a file that
  // cannot be read or changes.
  std::string pack() {
    Archive archive;
    std::string content;
    packed_.clear();
    PushItems& files = work().small;
    for (; at_ < files.size() && archive.size() < work().pieceBytes(); ++at_) {
      PushItem& item = files[at_];
      const LocalEntry& entry = *item.entry;
      if (entry.size > kLargestInArchive || (item.there && !item.there->isRegular()) ||
          readWhole(placeOf(entry), kLargestInArchive, content)) {
        continue;
      }
      const Archive::About about{entry.mode, item.there ? item.there->uid : 0,
                                 item.there ? item.there->gid : 0, entry.mtime};
      archive.add(std::to_string(packed_.size()), about, content);
      packed_.push_back(&item);
    }
    return archive.finish();
  }

  // The rename may reach the disk before the content. After a power failure the file would be
  // empty. Without "sync -f", all file systems of the device are synchronised.
  void synchronise() {
    work().ask(Request::exec({"sync", "-f", staging_->path()}, 0), [this](const Reply& reply) {
      if (!reply.ok()) {
        work().tell(Request::exec({"sync"}, 0));
      }
      renameAll();
    });
  }

  void renameAll() {
    const auto rename = [this, number = std::size_t{0}](const PushItem& item) mutable {
      return Request({"rename", staging_->path() + "/" + std::to_string(number++), item.target});
    };
    const auto renamed = [this](PushItem& item, const Reply& reply) {
      item.complete = reply.ok();
      if (reply.ok()) {
        work().fileDone();
        work().count(item.entry->size, item.target);
      }
    };
    work().pipe(oneForEach<PushItem>(packed_, rename, renamed), [this] {
      if (at_ < work().small.size()) {
        sendArchive();
      } else {
        staging_->remove(next_);
      }
    });
  }

  Next next_;
  std::optional<StagingDirectory> staging_;
  std::size_t at_ = 0;             // the next file
  std::vector<PushItem*> packed_;  // the name of a file in the archive is its index in this list
};

}  // namespace

std::unique_ptr<Stage> sendArchives(PushWork& work) {
  return std::make_unique<SendArchives>(work);
}

}  // namespace runel
