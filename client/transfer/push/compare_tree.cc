// SPDX-License-Identifier: Apache-2.0
// Finds the differences between a local tree and a tree on the device.
#include <algorithm>
#include <array>
#include <cerrno>
#include <map>
#include <set>

#include "client/core/paths.h"
#include "client/transfer/checksums.h"
#include "client/transfer/programs.h"
#include "client/transfer/push/removals.h"
#include "client/transfer/push/stages.h"

namespace runel {
namespace {

using Tree = ExtraEntries;

// Removes the counterpart of @p entry from @p there. Returns nullptr if it is missing or has a
// different type.
const TreeEntry* take(Tree& there, const LocalEntry& entry) {
  const auto found = there.find(entry.relative.empty() ? "." : entry.relative);
  if (found == there.end() || found->second->type != entry.type) {
    return nullptr;
  }
  const TreeEntry* taken = found->second;
  there.erase(found);
  return taken;
}

bool sameTime(const LocalEntry& here, const TreeEntry& there) {
  return there.mtime == here.mtime.seconds;
}

bool sameContent(const LocalEntry& here, const TreeEntry& there) {
  if (here.type == 'l') {
    return there.target == here.target;
  }
  return here.type == 'd' || (there.size == here.size && sameTime(here, there));
}

// Drops what is equal on the device. With checksums, they decide about files of equal size, and a
// file whose checksum the device does not tell counts as different.
class CompareTree : public PushStage {
 public:
  using PushStage::PushStage;

  // The trailing dot follows a symbolic link to a directory.
  void start(Next next) override {
    work().ask(Request({"walktree", work().root + "/."}),
               [this, next = std::move(next)](const Reply& reply) {
                 auto entries = parseTree(reply.output());
                 if (!entries || (!reply.ok() && reply.number() != ENOENT)) {
                   work().end(reply.ok() ? malformedTree() : reply.error(work().root));
                 } else {
                   entries_ = *std::move(entries);
                   compare();
                   compareFiles(next);
                 }
               });
  }

 private:
  struct SameSize {
    const PushItem* item;
    const TreeEntry* there;
  };

  [[nodiscard]] std::array<PushItems*, 4> lists() const {
    return {&work().small, &work().large, &work().links, &work().directories};
  }

  void compare() {
    Tree there;
    for (const TreeEntry& entry : entries_) {
      there[entry.path] = &entry;
    }
    for (const PushItems* list : lists()) {
      for (const PushItem& item : *list) {
        compare(item, take(there, *item.entry));
      }
    }
    if (work().options().removes()) {
      Removals removals = removalsOf(there, work().filter());
      work().others = std::move(removals.tops);
      work().removals = std::move(removals.entries);
    }
  }

  void compare(const PushItem& item, const TreeEntry* there) {
    if (there == nullptr) {
      return;
    }
    if (!work().options().checksum() || there->type != '-') {
      if (sameContent(*item.entry, *there)) {
        keep({&item, there});
      }
    } else if (there->size == item.entry->size) {
      sameSize_.push_back({&item, there});
    }
  }

  void compareFiles(Next next) {
    std::vector<Twin> files;
    for (const SameSize& file : sameSize_) {
      files.push_back({file.item->target, placeOf(*file.item->entry), file.item->entry->size});
    }
    Verdicts verdicts;
    verdicts.compared = [this](std::size_t index, bool same) {
      if (same) {
        keep(sameSize_[index]);
      }
    };
    verdicts.unknown = [](const std::string&) {};  // they are sent
    compareChecksums(work(), std::move(files), std::move(verdicts), [this, next = std::move(next)] {
      dropEqual();
      next();
    });
  }

  void keep(const SameSize& equal) {
    const LocalEntry& here = *equal.item->entry;
    equal_.insert(&here);
    if (here.type != 'l' && equal.there->mode != here.mode) {
      work().modeOnly.push_back(*equal.item);
    }
    if (here.type == '-' && !sameTime(here, *equal.there)) {
      work().timeOnly.push_back(*equal.item);
    }
    work().skip(here.size, equal.item->target);
  }

  void dropEqual() {
    bool differs = false;
    for (PushItems* list : lists()) {
      list->erase(
          std::remove_if(list->begin(), list->end(),
                         [this](const PushItem& item) { return equal_.count(item.entry) != 0; }),
          list->end());
      differs = differs || !list->empty();
    }
    work().directoriesChange = differs || !work().others.empty();
  }

  std::vector<TreeEntry> entries_;
  std::vector<SameSize> sameSize_;
  std::set<const LocalEntry*> equal_;
};

class RemoveOthers : public PushStage {
 public:
  using PushStage::PushStage;

  void start(Next next) override {
    ProgramRuns run{{"rm", "-r", "-f", "--"}, {}};
    for (const std::string& path : work().others) {
      run.names.push_back(joinPath(work().root, path));
    }
    work().removed(work().others.size());
    runPrograms(work(), {run}, "files not removed", std::move(next));
  }
};

}  // namespace

std::unique_ptr<Stage> compareTree(PushWork& work) {
  return std::make_unique<CompareTree>(work);
}

std::unique_ptr<Stage> removeOthers(PushWork& work) {
  return std::make_unique<RemoveOthers>(work);
}

}  // namespace runel
