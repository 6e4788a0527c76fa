// SPDX-License-Identifier: Apache-2.0
// Finds the differences between a local tree and a tree on the device.
#include <algorithm>
#include <cerrno>
#include <map>

#include "client/core/paths.h"
#include "client/transfer/programs.h"
#include "client/transfer/push/stages.h"

namespace runel {
namespace {

using Tree = std::map<std::string, const TreeEntry*>;

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

bool sameContent(const LocalEntry& here, const TreeEntry& there) {
  if (here.type == 'l') {
    return there.target == here.target;
  }
  return here.type == 'd' || (there.size == here.size && there.mtime == here.mtime.seconds);
}

// Drops what is equal on the device.
class CompareTree : public PushStage {
 public:
  using PushStage::PushStage;

  // The trailing dot follows a symbolic link to a directory.
  void start(Next next) override {
    work().ask(Request({"walktree", work().root + "/."}),
               [this, next = std::move(next)](const Reply& reply) {
                 const auto entries = parseTree(reply.output());
                 if (!entries || (!reply.ok() && reply.number() != ENOENT)) {
                   work().end(reply.ok() ? malformedTree() : reply.error(work().root));
                 } else {
                   compare(*entries);
                   next();
                 }
               });
  }

 private:
  void compare(const std::vector<TreeEntry>& entries) {
    Tree there;
    for (const TreeEntry& entry : entries) {
      there[entry.path] = &entry;
    }
    bool differs = false;
    for (PushItems* list : {&work().small, &work().large, &work().links, &work().directories}) {
      list->erase(std::remove_if(list->begin(), list->end(),
                                 [&](const PushItem& item) { return equal(item, there); }),
                  list->end());
      differs = differs || !list->empty();
    }
    for (const auto& [path, entry] : there) {
      if (work().options().removes() && path != "." && there.count(directoryOf(path)) == 0) {
        work().others.push_back(path);
      }
    }
    work().directoriesChange = differs || !work().others.empty();
  }

  bool equal(const PushItem& item, Tree& there) {
    const TreeEntry* entry = take(there, *item.entry);
    if (entry == nullptr || !sameContent(*item.entry, *entry)) {
      return false;
    }
    if (item.entry->type != 'l' && entry->mode != item.entry->mode) {
      work().modeOnly.push_back(item);
    }
    work().skip(item.entry->size, item.target);
    return true;
  }
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
