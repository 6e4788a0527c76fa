// SPDX-License-Identifier: Apache-2.0
// Tells the caller what a push or sync is going to change on the device.
#include <algorithm>
#include <cerrno>
#include <set>

#include "client/core/paths.h"
#include "client/transfer/push/stages.h"

namespace runel {
namespace {

using Action = TransferChange::Action;

class TellRemovals : public PushStage {
 public:
  using PushStage::PushStage;

  void start(Next next) override {
    for (const TreeEntry& entry : work().removals) {
      work().tellChange({Action::remove, entry.type, joinPath(work().root, entry.path),
                         entry.target, entry.size, std::nullopt});
    }
    if (work().options().planOnly()) {
      work().removed(work().others.size());
    }
    next();
  }
};

// Asks for what the other stages need not know: whether a link exists, and what is behind an
// existing link. A plan also asks whether an existing directory is one.
class TellSent : public PushStage {
 public:
  using PushStage::PushStage;

  void start(Next next) override {
    if (!work().tellsChanges()) {
      next();
      return;
    }
    collect();
    std::vector<Look*> asked;
    for (Look& look : looks_) {
      if (look.task != nullptr) {
        asked.push_back(&look);
      }
    }
    work().pipe(oneForEach<Look>(
                    std::move(asked),
                    [](const Look& look) {
                      return Request({look.task, look.item->target});
                    },
                    [](Look& look, const Reply& reply) { look.there = statIn(reply); }),
                [this, next = std::move(next)] {
                  tell();
                  next();
                });
  }

 private:
  struct Look {
    const PushItem* item;
    const char* task;  // the request that is needed, or nullptr
    std::optional<Stat> there;
  };

  void collect() {
    if (work().options().planOnly()) {  // otherwise they are gone
      for (const std::string& top : work().others) {
        removed_.insert(joinPath(work().root, top));
      }
    }
    for (const PushItem& item : work().directories) {
      const bool ask = !isNew(item.target) && work().options().planOnly();
      looks_.push_back({&item, ask ? "stat" : nullptr, std::nullopt});
    }
    for (const PushItems* list : {&work().small, &work().large}) {
      for (const PushItem& item : *list) {
        const bool known = !isNew(item.target) && item.there;
        const bool link = known && item.there->isLink();
        looks_.push_back({&item, link ? "stat" : nullptr, known ? item.there : std::nullopt});
      }
    }
    for (const PushItem& item : work().links) {
      looks_.push_back({&item, isNew(item.target) ? nullptr : "lstat", std::nullopt});
    }
  }

  // Whether nothing is at @p target when it is written.
  [[nodiscard]] bool isNew(const std::string& target) const {
    if (work().newDirectories.count(target) != 0) {
      return true;
    }
    std::string at = target;
    while (removed_.count(at) == 0 && at != "." && at != "/") {
      at = directoryOf(at);
    }
    return removed_.count(at) != 0 || work().newDirectories.count(directoryOf(target)) != 0;
  }

  void tell() {
    std::vector<TransferChange> changes;
    for (const Look& look : looks_) {
      add(look, changes);
    }
    std::set<const LocalEntry*> told;
    for (const PushItems* list : {&work().modeOnly, &work().timeOnly}) {
      for (const PushItem& item : *list) {
        if (told.insert(item.entry).second) {
          changes.push_back(changeOf(Action::attributes, item));
        }
      }
    }
    std::sort(changes.begin(), changes.end(),
              [](const TransferChange& a, const TransferChange& b) { return a.path < b.path; });
    for (const TransferChange& change : changes) {
      work().tellChange(change);
    }
  }

  void add(const Look& look, std::vector<TransferChange>& changes) {
    const PushItem& item = *look.item;
    if (item.entry->type == 'd') {
      if (isNew(item.target)) {
        changes.push_back(changeOf(Action::create, item));
      } else if (look.there && !look.there->isDirectory()) {
        refuse(item, Cause::other, ENOTDIR);
      }
    } else if (look.there && look.there->isDirectory()) {
      refuse(item, Cause::directory, EISDIR);
    } else {
      changes.push_back(changeOf(look.there ? Action::replace : Action::create, item));
      if (look.there && look.there->isRegular()) {
        changes.back().oldSize = look.there->size;
      }
    }
  }

  // A transfer finds out by itself.
  void refuse(const PushItem& item, Cause cause, int number) {
    if (work().options().planOnly()) {
      work().fail(Error(Kind::device, cause, item.target + ": " + systemText(number), number));
    }
  }

  [[nodiscard]] static TransferChange changeOf(Action action, const PushItem& item) {
    return {action,           item.entry->type, item.target, item.entry->target,
            item.entry->size, std::nullopt};
  }

  std::vector<Look> looks_;
  std::set<std::string> removed_;
};

}  // namespace

std::unique_ptr<Stage> tellRemovals(PushWork& work) {
  return std::make_unique<TellRemovals>(work);
}

std::unique_ptr<Stage> tellSent(PushWork& work) {
  return std::make_unique<TellSent>(work);
}

}  // namespace runel
