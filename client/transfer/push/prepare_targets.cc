// SPDX-License-Identifier: Apache-2.0
// Directories and existing files on the device, before the contents.
#include <algorithm>
#include <iterator>

#include "client/core/paths.h"
#include "client/transfer/delta/delta_transfer.h"
#include "client/transfer/programs.h"
#include "client/transfer/push/stages.h"

namespace runel {
namespace {

// Finds out which directories are missing.
class LookAtDirectories : public PushStage {
 public:
  using PushStage::PushStage;

  void start(Next next) override {
    std::vector<PushItem*> directories;
    for (PushItem& item : work().directories) {
      directories.push_back(&item);
    }
    work().pipe(oneForEach<PushItem>(
                    std::move(directories),
                    [](const PushItem& item) {
                      return Request({"fileexists", item.target});
                    },
                    [this](const PushItem& item, const Reply& reply) {
                      if (!reply.ok()) {
                        work().newDirectories.insert(item.target);
                      }
                    }),
                std::move(next));
  }
};

class MakeDirectories : public PushStage {
 public:
  using PushStage::PushStage;

  void start(Next next) override {
    ProgramRuns run{{"mkdir", "-p", "--"}, {}};
    for (const PushItem& item : work().directories) {
      run.names.push_back(item.target);
    }
    runPrograms(work(), {run}, "directories not created", std::move(next));
  }
};

// Gets owner and type of existing files: the owner is preserved and symbolic links are followed, as
// "write" does. The files in a new directory need no check.
class LookAtTargets : public PushStage {
 public:
  using PushStage::PushStage;

  void start(Next next) override {
    std::vector<PushItem*> files;
    for (PushItems* list : {&work().small, &work().large}) {
      for (PushItem& item : *list) {
        if (work().rootItself && item.target == work().root) {
          item.there = *work().rootItself;
        } else if (work().newDirectories.count(directoryOf(item.target)) == 0) {
          files.push_back(&item);
        }
      }
    }
    work().pipe(oneForEach<PushItem>(
                    std::move(files),
                    [](const PushItem& item) {
                      return Request({"lstat", item.target});
                    },
                    [](PushItem& item, const Reply& reply) { item.there = statIn(reply); }),
                [this, next = std::move(next)] {
                  chooseDeltas();
                  next();
                });
  }

 private:
  // A file of which only the differences may be sent is treated as a large one.
  void chooseDeltas() const {
    const auto first = std::stable_partition(
        work().small.begin(), work().small.end(), [this](const PushItem& item) {
          return !mayUseDelta(work().options().delta(), item.there, item.entry->size);
        });
    std::move(first, work().small.end(), std::back_inserter(work().large));
    work().small.erase(first, work().small.end());
  }
};

}  // namespace

std::unique_ptr<Stage> lookAtDirectories(PushWork& work) {
  return std::make_unique<LookAtDirectories>(work);
}

std::unique_ptr<Stage> makeDirectories(PushWork& work) {
  return std::make_unique<MakeDirectories>(work);
}

std::unique_ptr<Stage> lookAtTargets(PushWork& work) {
  return std::make_unique<LookAtTargets>(work);
}

}  // namespace runel
