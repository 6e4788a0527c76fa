// SPDX-License-Identifier: Apache-2.0
#include "client/transfer/pull/work.h"

#include "client/transfer/local_file.h"
#include "client/transfer/parts.h"

namespace runel {

PullWork::PullWork(AsyncDevice& device, std::vector<std::string> from, std::string to,
                   const TransferOptions& how, AsyncTransfer::Done done)
    : TransferWork(device, how, std::move(done)),
      sources(std::move(from)),
      root(std::move(to)),
      into(options().intoDirectory() || sources.size() > 1 ||
           (!root.empty() && root.back() == '/') || isLocalDirectory(root)) {}

void PullWork::failItem(PullItem& item, const Error& error) {
  item.failed = true;
  fail(error);
}

void PullWork::takeStat(PullItem& item, const Reply& reply) {
  const std::optional<Stat> st = statIn(reply);
  item.known = st.has_value();
  item.st = st.value_or(item.st);
}

Error changedThere(const PullItem& item) {
  return changedFile(Kind::device, item.source);
}

}  // namespace runel
