// SPDX-License-Identifier: Apache-2.0
// Sends each small file by one "write".
#include "client/transfer/local_file.h"
#include "client/transfer/push/stages.h"

namespace runel {
namespace {

class SendSmallFiles : public PushStage {
 public:
  using PushStage::PushStage;

  void start(Next next) override {
    work().pipe([this] { return nextFile(); }, std::move(next));
  }

 private:
  std::optional<Pipeline::Item> nextFile() {
    while (at_ < work().small.size()) {
      PushItem& item = work().small[at_++];
      if (item.complete) {
        continue;  // it was in an archive
      }
      std::string content;
      if (const auto error = readWhole(placeOf(*item.entry), 2 * work().pieceBytes(), content)) {
        work().failItem(item, *error);
        continue;
      }
      const std::size_t size = content.size();
      return Pipeline::Item{Request({"write", item.target}, std::move(content)), size,
                            [this, &item, size](const Reply& reply) {
                              written(item, size, reply);
                              return true;
                            }};
    }
    return std::nullopt;
  }

  void written(PushItem& item, std::size_t size, const Reply& reply) {
    if (reply.ok()) {
      work().fileDone();
      work().count(size, item.target);
    } else {
      work().failItem(item, reply.error(item.target));
    }
  }

  std::size_t at_ = 0;
};

}  // namespace

std::unique_ptr<Stage> sendSmallFiles(PushWork& work) {
  return std::make_unique<SendSmallFiles>(work);
}

}  // namespace runel
