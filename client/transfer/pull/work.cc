// SPDX-License-Identifier: Apache-2.0
#include "client/transfer/pull/work.h"

#include "client/core/paths.h"
#include "client/transfer/parts.h"

namespace runel {
PullWork::PullWork(AsyncDevice& device, std::vector<std::string> from, std::string to,
                   const TransferOptions& how, AsyncTransfer::Done done)
    : TransferWork(device, how, std::move(done)),
      sources(std::move(from)),
      root(how.subdirectory().empty() ? to : joinPath(to, how.subdirectory())),
      into(how.intoDirectory() || !how.subdirectory().empty() || sources.size() > 1 ||
           (!root.empty() && root.back() == '/') || isLocalDirectory(root)),
      named_(std::move(to)) {}

std::optional<Error> PullWork::openTarget() {
  const std::string& subdirectory = options().subdirectory();
  if (!subdirectory.empty()) {
    LocalDirectory outer;
    const auto error = outer.create(named_);
    return error ? error : target_.createBelow(outer, subdirectory, root);
  }
  if (into || whole) {
    return target_.create(root);
  }
  if (small.empty() && large.empty()) {
    return std::nullopt;  // there is nothing to write
  }
  const auto error = target_.open(directoryOf(root));
  return error ? std::make_optional(Error::local(root, error->number())) : std::nullopt;
}

LocalPath PullWork::placeOf(const PullItem& item) const {
  return {&target_, item.name, item.path};
}

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
