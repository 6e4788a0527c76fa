// SPDX-License-Identifier: Apache-2.0
// After the contents: links, modes, times and checksums, by programs of the device.
#include "client/transfer/checksums.h"
#include "client/transfer/programs.h"
#include "client/transfer/push/stages.h"

namespace runel {
namespace {

class MakeLinks : public PushStage {
 public:
  using PushStage::PushStage;

  void start(Next next) override {
    std::vector<ProgramRuns> runs;
    for (const PushItem& item : work().links) {
      runs.push_back({{"ln", "-s", "-f", "-n", "--", item.entry->target}, {item.target}});
    }
    runPrograms(work(), std::move(runs), "links not created", std::move(next));
  }
};

class SetModes : public PushStage {
 public:
  using PushStage::PushStage;

  void start(Next next) override {
    NamesByArgument groups;
    for (const PushItem* item : work().sentFiles()) {
      add(*item, groups);
    }
    for (const PushItems* list : {&work().directories, &work().modeOnly}) {
      for (const PushItem& item : *list) {
        add(item, groups);
      }
    }
    runPrograms(work(), runsOf(groups, {"chmod"}), "modes not preserved", std::move(next));
  }

 private:
  static void add(const PushItem& item, NamesByArgument& groups) {
    if (!item.complete) {
      groups[octalMode(item.entry->mode)].push_back(item.target);
    }
  }
};

class SetTimes : public PushStage {
 public:
  using PushStage::PushStage;

  // Whole seconds if the device's touch rejects fractions.
  void start(Next next) override {
    const auto handle = [this](const ProgramRun& run) {
      failed_ = failed_ || !run.reply.ok();
      return true;
    };
    work().pipe(programSource(runs(true), handle), [this, next = std::move(next)] {
      runPrograms(work(), failed_ ? runs(false) : std::vector<ProgramRuns>(), "times not preserved",
                  next);
    });
  }

 private:
  std::vector<ProgramRuns> runs(bool fractions) {
    NamesByArgument groups;
    const auto add = [&](const PushItem& item) {
      if (!item.complete) {
        groups[touchTime(item.entry->mtime, fractions)].push_back(item.target);
      }
    };
    for (const PushItem* item : work().sentFiles()) {
      add(*item);
    }
    for (const PushItem& item : work().timeOnly) {
      add(item);
    }
    for (const PushItem& item : work().directories) {
      if (work().directoriesChange) {
        add(item);
      }
    }
    return runsOf(groups, {"touch", "-c", "-d"});
  }

  bool failed_ = false;
};

class CompareSentFiles : public PushStage {
 public:
  using PushStage::PushStage;

  void start(Next next) override {
    std::vector<Twin> files;
    if (work().options().checksum()) {
      items_ = work().sentFiles();
    }
    for (const PushItem* item : items_) {
      files.push_back({item->target, placeOf(*item->entry), item->entry->size});
    }
    const auto mismatch = [this](std::size_t index) {
      work().fail(checksumMismatch(Kind::device, items_[index]->target));
    };
    verifyChecksums(work(), std::move(files), mismatch, std::move(next));
  }

 private:
  std::vector<PushItem*> items_;
};

}  // namespace

std::unique_ptr<Stage> makeLinks(PushWork& work) {
  return std::make_unique<MakeLinks>(work);
}

std::unique_ptr<Stage> setModes(PushWork& work) {
  return std::make_unique<SetModes>(work);
}

std::unique_ptr<Stage> setTimes(PushWork& work) {
  return std::make_unique<SetTimes>(work);
}

std::unique_ptr<Stage> compareSentFiles(PushWork& work) {
  return std::make_unique<CompareSentFiles>(work);
}

}  // namespace runel
