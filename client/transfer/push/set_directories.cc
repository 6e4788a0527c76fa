// SPDX-License-Identifier: Apache-2.0
// One tar sets the modes and times of many directories; touch would run once for each of them.
// chmod and touch process the remaining directories.
#include <algorithm>

#include "client/core/paths.h"
#include "client/transfer/archive.h"
#include "client/transfer/hidden_paths.h"
#include "client/transfer/push/stages.h"
#include "client/transfer/push/staging_directory.h"

namespace runel {
namespace {

// Fewer directories are left to chmod and touch.
constexpr std::size_t kManyDirectories = 8;

class SetDirectories : public PushStage {
 public:
  using PushStage::PushStage;

  void start(Next next) override {
    PushItems& directories = work().directories;
    const auto first = std::find_if(directories.begin(), directories.end(),
                                    [](const PushItem& item) { return !item.complete; });
    if (first == directories.end() || !work().directoriesChange) {
      next();
      return;
    }
    const std::string base = directoryOf(first->target);
    std::string archive = pack(base);
    if (packed_.size() < kManyDirectories) {
      next();
      return;
    }
    staging_.emplace(work(), stagingPath(first->target));
    staging_->unpack(std::move(archive), {"-o", "-C", base},
                     [this, next = std::move(next)](bool done) {
                       for (PushItem* item : packed_) {
                         item->complete = done;
                       }
                       staging_->remove(next);
                     });
  }

 private:
  // The trailing dot follows a symbolic link to a directory.
  std::string pack(const std::string& base) {
    Archive archive;
    const std::string before = base == "/" ? base : base + "/";
    for (PushItem& item : work().directories) {
      const bool below =
          item.target.size() > before.size() && item.target.compare(0, before.size(), before) == 0;
      const std::string name = below ? item.target.substr(before.size()) + "/." : "";
      if (!item.complete && !name.empty() && name.size() <= Archive::kMostName) {
        archive.addDirectory(name, {item.entry->mode, 0, 0, item.entry->mtime});
        packed_.push_back(&item);
      }
    }
    return archive.finish();
  }

  std::optional<StagingDirectory> staging_;
  std::vector<PushItem*> packed_;
};

}  // namespace

std::unique_ptr<Stage> setDirectories(PushWork& work) {
  return std::make_unique<SetDirectories>(work);
}

}  // namespace runel
