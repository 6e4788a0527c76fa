// SPDX-License-Identifier: Apache-2.0
// Tells the caller what a pull is going to change on this host. Writes nothing, and follows no
// symbolic link below the target.
#include <algorithm>
#include <cerrno>

#include "client/transfer/pull/stages.h"

namespace runel {
namespace {

using Action = TransferChange::Action;

class TellFetched : public PullStage {
 public:
  using PullStage::PullStage;

  void start(Next next) override {
    if (work().tellsChanges()) {
      const auto error = work().openTargetForReading(target_);
      exists_ = !error;
      if (exists_ || error->number() == ENOENT) {
        tell();
      } else {
        refuse(*error);
      }
    }
    next();
  }

 private:
  void tell() {
    for (const PullItems* list :
         {&work().directories, &work().small, &work().large, &work().links}) {
      for (const PullItem& item : *list) {
        add(item, list == &work().directories ? 'd' : (list == &work().links ? 'l' : '-'));
      }
    }
    std::sort(changes_.begin(), changes_.end(),
              [](const TransferChange& a, const TransferChange& b) { return a.path < b.path; });
    for (const TransferChange& change : changes_) {
      work().tellChange(change);
    }
  }

  void add(const PullItem& item, char type) {
    const Result<std::optional<Stat>> looked =
        exists_ ? lookAtLocal({&target_, item.name, item.path}) : std::optional<Stat>();
    if (!looked) {
      refuse(looked.error());
      return;
    }
    const std::optional<Stat>& there = *looked;
    if (there && there->isDirectory() != (type == 'd')) {
      refuse(Error::local(item.path, type == 'd' ? EEXIST : EISDIR));
      return;
    }
    if (there && type == 'd') {
      return;
    }
    changes_.push_back({there ? Action::replace : Action::create, type, item.path, item.target,
                        type == '-' ? item.st.size : 0, std::nullopt});
    if (there && there->isRegular()) {
      changes_.back().oldSize = there->size;
    }
  }

  // A transfer finds out by itself.
  void refuse(const Error& error) {
    if (work().options().planOnly()) {
      work().fail(error);
    }
  }

  LocalDirectory target_;
  bool exists_ = false;
  std::vector<TransferChange> changes_;
};

}  // namespace

std::unique_ptr<Stage> tellFetched(PullWork& work) {
  return std::make_unique<TellFetched>(work);
}

}  // namespace runel
