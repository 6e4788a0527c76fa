// SPDX-License-Identifier: Apache-2.0
// Fetches each small file by one "read" between two "stat", the first one unless its attributes are
// known. All three are pipelined. The files are finished in batches.
#include <string_view>

#include "client/transfer/local_batch.h"
#include "client/transfer/pull/stages.h"

namespace runel {
namespace {

class FetchSmallFiles : public PullStage {
 public:
  using PullStage::PullStage;

  void start(Next next) override {
    work().pipe([this] { return nextRequest(); },
                [this, next = std::move(next)] {
                  if (const auto error = batch_.finish()) {
                    work().fail(*error);
                  }
                  next();
                });
  }

 private:
  using Take = void (FetchSmallFiles::*)(PullItem& item, const Reply& reply);
  enum class Step { before, content, after };

  std::optional<Pipeline::Item> nextRequest() {
    if (at_ == work().small.size()) {
      return std::nullopt;
    }
    PullItem& item = work().small[at_];
    if (step_ == Step::before && !item.known) {
      step_ = Step::content;
      return ask("stat", item, 0, &FetchSmallFiles::takeBefore);
    }
    if (step_ != Step::after) {
      step_ = Step::after;
      return ask("read", item, static_cast<std::size_t>(item.st.size),
                 &FetchSmallFiles::takeContent);
    }
    step_ = Step::before;
    ++at_;
    return ask("stat", item, 0, &FetchSmallFiles::takeAfter);
  }

  [[nodiscard]] Pipeline::Item ask(const char* task, PullItem& item, std::size_t weight,
                                   Take take) {
    return {Request({task, item.source}), weight, [this, &item, take](const Reply& reply) {
              if (!item.failed) {
                (this->*take)(item, reply);
              }
              return true;
            }};
  }

  void takeBefore(PullItem& item, const Reply& reply) { (void)work().takeStatBefore(item, reply); }

  void takeContent(PullItem& item, const Reply& reply) {
    content_ = reply;
    if (!reply.ok()) {
      work().failItem(item, reply.error(item.source));
    }
  }

  void takeAfter(PullItem& item, const Reply& reply) {
    const Reply content = std::exchange(content_, Reply());
    if (const auto error = work().checkStatAfter(item, reply, content.output().size())) {
      work().failItem(item, *error);
    } else {
      write(item, content.output());
    }
  }

  void write(PullItem& item, std::string_view content) {
    const std::string_view bytes = item.grew ? content.substr(0, item.st.size) : content;
    item.st.size = bytes.size();
    batch_.write(work().placeOf(item), bytes, item.st.mode, item.st.mtime,
                 [this, &item](const std::optional<Error>& error) { written(item, error); });
  }

  void written(PullItem& item, const std::optional<Error>& error) {
    if (error) {
      work().failItem(item, *error);
      return;
    }
    work().count(item.st.size, item.source);
    work().fileDone();
  }

  std::size_t at_ = 0;
  Step step_ = Step::before;  // of the next request, which is for the file `at_`
  Reply content_;             // of the file whose second "stat" is due
  LocalBatch batch_;
};

}  // namespace

std::unique_ptr<Stage> fetchSmallFiles(PullWork& work) {
  return std::make_unique<FetchSmallFiles>(work);
}

}  // namespace runel
