// SPDX-License-Identifier: Apache-2.0
#include "client/transfer/pull/work.h"

#include "client/core/paths.h"
#include "client/transfer/parts.h"

namespace runel {
namespace {

std::string sizeWords(std::uint64_t size) {
  return std::to_string(size) + (size == 1 ? " byte" : " bytes");
}

}  // namespace

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

std::optional<Error> PullWork::openTargetForReading(LocalDirectory& directory) const {
  const std::string& subdirectory = options().subdirectory();
  if (subdirectory.empty()) {
    return directory.open(into || whole ? root : directoryOf(root));
  }
  LocalDirectory outer;
  auto error = outer.open(named_);
  return error ? std::move(error) : directory.openIn(outer, subdirectory, root);
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

bool PullWork::takeStatBefore(PullItem& item, const Reply& reply) {
  const std::uint64_t announced = item.st.size;
  takeStat(item, reply);
  if (!item.known) {
    failItem(item, reply.ok() ? changedThere(item) : reply.error(item.source));
    return false;
  }
  if (item.st.size < announced) {
    warn(item.source + ": has shrunk from " + sizeWords(announced) + " to " +
         sizeWords(item.st.size) + " since it was listed");
  }
  return true;
}

std::optional<Error> PullWork::checkStatAfter(PullItem& item, const Reply& reply,
                                              std::uint64_t came) {
  const std::optional<Stat> after = statIn(reply);
  const Stat& before = item.st;
  if (after && before.size == 0 && after->size == 0) {
    return std::nullopt;  // it may have content nevertheless, for example below /proc
  }
  if (!after || after->ino != before.ino) {
    return changedThere(item);
  }
  if (after->size > before.size && came >= before.size) {
    item.grew = true;
    warn(item.source + ": has grown during the transfer; only its first " + sizeWords(before.size) +
         " were copied");
    return std::nullopt;
  }
  if (after->size != before.size || !(after->mtime == before.mtime) || came > before.size) {
    return changedThere(item);
  }
  return came == before.size
             ? std::nullopt
             : std::make_optional(Error(Kind::device, Cause::other,
                                        item.source + ": only " + std::to_string(came) + " of " +
                                            sizeWords(before.size) + " could be read"));
}

Error changedThere(const PullItem& item) {
  return changedFile(Kind::device, item.source);
}

}  // namespace runel
