// SPDX-License-Identifier: Apache-2.0
// Creates the directories of a pull, and sets their modes and times at its end.
#include <algorithm>
#include <set>

#include "client/core/paths.h"
#include "client/transfer/local_directory.h"
#include "client/transfer/pull/stages.h"

namespace runel {
namespace {

class MakeLocalDirectories : public PullStage {
 public:
  using PullStage::PullStage;

  void start(Next next) override {
    if (const auto error = work().openTarget()) {
      work().end(*error);
      return;
    }
    for (PullItem& directory : work().directories) {
      if (isBelowFailed(directory)) {
        directory.failed = true;
      } else if (const auto error = makeLocalDirectory(work().placeOf(directory))) {
        work().failItem(directory, *error);
        failed_.insert(directory.name);
      }
    }
    for (PullItems* list : {&work().small, &work().large, &work().links}) {
      list->erase(std::remove_if(list->begin(), list->end(),
                                 [this](const PullItem& item) { return isBelowFailed(item); }),
                  list->end());
    }
    next();
  }

 private:
  [[nodiscard]] bool isBelowFailed(const PullItem& item) const {
    std::string parent = failed_.empty() ? "." : directoryOf(item.name);
    while (parent != "." && failed_.count(parent) == 0) {
      parent = directoryOf(parent);
    }
    return parent != ".";
  }

  std::set<std::string> failed_;  // their error stands for all that is below them
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
      const auto error =
          item->failed ? std::nullopt
                       : finishLocalDirectory(work().placeOf(*item), item->st.mode, item->st.mtime);
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
