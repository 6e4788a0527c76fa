// SPDX-License-Identifier: Apache-2.0
// Fetches each small file by one "read", after a "stat" unless its attributes are known.
#include "client/transfer/local_file.h"
#include "client/transfer/pull/stages.h"

namespace runel {
namespace {

class FetchSmallFiles : public PullStage {
 public:
  using PullStage::PullStage;

  void start(Next next) override {
    work().pipe([this] { return nextRequest(); }, std::move(next));
  }

 private:
  std::optional<Pipeline::Item> nextRequest() {
    if (at_ == work().small.size()) {
      return std::nullopt;
    }
    PullItem& item = work().small[at_];
    if (!item.known && !asked_) {
      asked_ = true;
      return Pipeline::Item{Request({"stat", item.source}), 0, [&item](const Reply& reply) {
                              PullWork::takeStat(item, reply);
                              return true;
                            }};
    }
    asked_ = false;
    ++at_;
    return Pipeline::Item{Request({"read", item.source}), static_cast<std::size_t>(item.st.size),
                          [this, &item](const Reply& reply) {
                            take(item, reply);
                            return true;
                          }};
  }

  void take(PullItem& item, const Reply& reply) {
    if (!reply.ok()) {
      work().failItem(item, reply.error(item.source));
      return;
    }
    const std::string& content = reply.output();
    // A file of size 0 may have content, for example below /proc.
    if (!item.known || (item.st.size != 0 && item.st.size != content.size())) {
      work().failItem(item, changedThere(item));
      return;
    }
    LocalWriter writer;
    std::optional<Error> error = writer.begin(work().placeOf(item), false);
    error = error ? error : writer.add(content);
    error = error ? error : writer.finish(item.st.mode, item.st.mtime);
    if (error) {
      work().failItem(item, *error);
      return;
    }
    item.st.size = content.size();
    work().count(item.st.size, item.source);
    work().fileDone();
  }

  std::size_t at_ = 0;
  bool asked_ = false;  // for the attributes of the current file
};

}  // namespace

std::unique_ptr<Stage> fetchSmallFiles(PullWork& work) {
  return std::make_unique<FetchSmallFiles>(work);
}

}  // namespace runel
