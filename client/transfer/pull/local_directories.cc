// SPDX-License-Identifier: Apache-2.0
// Creates the directories of a pull, and sets their modes and times at its end.
#include "client/transfer/local_file.h"
#include "client/transfer/pull/stages.h"

namespace runel {
namespace {

class MakeLocalDirectories : public PullStage {
 public:
  using PullStage::PullStage;

  void start(Next next) override {
    if (work().into && !isLocalDirectory(work().root)) {
      if (const auto error = makeLocalDirectory(work().root)) {
        work().end(*error);
        return;
      }
    }
    for (PullItem& directory : work().directories) {
      if (const auto error = makeLocalDirectory(directory.path)) {
        work().failItem(directory, *error);
      }
    }
    next();
  }
};

class GetDirectoryTimes : public PullStage {
 public:
  using PullStage::PullStage;

  void start(Next next) override {
    std::vector<PullItem*> directories;
    for (PullItem& item : work().directories) {
      directories.push_back(&item);
    }
    work().pipe(oneForEach<PullItem>(
                    std::move(directories),
                    [](const PullItem& item) {
                      return Request({"stat", item.source});
                    },
                    PullWork::takeStat),
                std::move(next));
  }
};

// Innermost directories first: a change in a directory changes its time.
class FinishLocalDirectories : public PullStage {
 public:
  using PullStage::PullStage;

  void start(Next next) override {
    PullItems& directories = work().directories;
    for (auto item = directories.rbegin(); item != directories.rend(); ++item) {
      const auto error = item->failed
                             ? std::nullopt
                             : finishLocalDirectory(item->path, item->st.mode, item->st.mtime);
      if (error) {
        work().failItem(*item, *error);
      }
    }
    next();
  }
};

}  // namespace

std::unique_ptr<Stage> makeLocalDirectories(PullWork& work) {
  return std::make_unique<MakeLocalDirectories>(work);
}

std::unique_ptr<Stage> getDirectoryTimes(PullWork& work) {
  return std::make_unique<GetDirectoryTimes>(work);
}

std::unique_ptr<Stage> finishLocalDirectories(PullWork& work) {
  return std::make_unique<FinishLocalDirectories>(work);
}

}  // namespace runel
