// SPDX-License-Identifier: Apache-2.0
#include "client/transfer/push/work.h"

namespace runel {

std::vector<PushItem*> PushWork::sentFiles() {
  std::vector<PushItem*> items;
  for (PushItems* list : {&small, &large}) {
    for (PushItem& item : *list) {
      if (!item.failed) {
        items.push_back(&item);
      }
    }
  }
  return items;
}

void PushWork::failItem(PushItem& item, const Error& error) {
  item.failed = true;
  fail(error);
}

}  // namespace runel
