// SPDX-License-Identifier: Apache-2.0
// After the contents of a pull: links and checksums.
#include "client/transfer/checksums.h"
#include "client/transfer/local_file.h"
#include "client/transfer/pull/stages.h"

namespace runel {
namespace {

class MakeLocalLinks : public PullStage {
 public:
  using PullStage::PullStage;

  void start(Next next) override {
    for (PullItem& link : work().links) {
      if (const auto error = makeLocalLink(work().placeOf(link), link.target)) {
        work().failItem(link, *error);
      }
    }
    next();
  }
};

class CompareFetchedFiles : public PullStage {
 public:
  using PullStage::PullStage;

  void start(Next next) override {
    std::vector<Twin> files;
    for (PullItems* list : {&work().small, &work().large}) {
      for (PullItem& item : *list) {
        if (work().options().checksum() && !item.failed && !item.grew) {
          files.push_back({item.source, work().placeOf(item), item.st.size});
          items_.push_back(&item);
        }
      }
    }
    const auto mismatch = [this](std::size_t index) {
      work().failItem(*items_[index], checksumMismatch(Kind::local, items_[index]->path));
    };
    verifyChecksums(work(), std::move(files), mismatch, std::move(next));
  }

 private:
  std::vector<PullItem*> items_;
};

}  // namespace

std::unique_ptr<Stage> makeLocalLinks(PullWork& work) {
  return std::make_unique<MakeLocalLinks>(work);
}

std::unique_ptr<Stage> compareFetchedFiles(PullWork& work) {
  return std::make_unique<CompareFetchedFiles>(work);
}

}  // namespace runel
