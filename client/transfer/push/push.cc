// SPDX-License-Identifier: Apache-2.0
// Push and sync: the lists of their stages.
#include <utility>

#include "client/transfer/push/stages.h"
#include "client/transfer/running.h"

namespace runel {
namespace {

using PushStageMaker = std::unique_ptr<Stage> (*)(PushWork& work);

constexpr PushStageMaker kPushBegin[] = {
    findPushTarget,  // the paths on the device, like cp(1)
};
constexpr PushStageMaker kSyncBegin[] = {
    findSyncTarget,  // the target is the directory itself
    compareTree,     // forgets what is equal on the device; sha256sum, if requested
    tellRemovals,    // to the caller
};
constexpr PushStageMaker kRemove[] = {
    removeOthers,  // rm, if requested
};
constexpr PushStageMaker kPlan[] = {
    lookAtDirectories,
    lookAtTargets,
    tellSent,
};
constexpr PushStageMaker kSend[] = {
    lookAtDirectories,  // the targets in a new directory need no check
    makeDirectories,    // mkdir
    lookAtTargets,      // the owner and type of existing files
    tellSent,           // to the caller, with the sizes of existing files
    sendArchives,       // many small files: unpacked by tar, then a "rename" for each
    sendSmallFiles,     // the others: a "write" for each
    sendLargeFiles,     // in pieces: an "append" for each, then a "rename"
    makeLinks,          // ln
    setDirectories,     // modes and times of many directories: unpacked by tar
    setModes,           // chmod of what has no mode yet
    setTimes,           // touch of what has no time yet
    compareSentFiles,   // sha256sum, if requested
};

template <std::size_t count>
void append(Stages& stages, const PushStageMaker (&makers)[count], PushWork& work) {
  for (const PushStageMaker make : makers) {
    stages.push_back(make(work));
  }
}

}  // namespace

inline namespace v1 {

std::unique_ptr<AsyncTransfer> AsyncTransfer::push(AsyncDevice& device, const PushSources& sources,
                                                   const std::string& target,
                                                   const TransferOptions& options, Done done) {
  auto work = std::make_unique<PushWork>(device, sources, target, options, std::move(done));
  Stages stages;
  append(stages, kPushBegin, *work);
  if (options.planOnly()) {
    append(stages, kPlan, *work);
  } else {
    append(stages, kSend, *work);
  }
  return Data::start(std::move(work), std::move(stages));
}

std::unique_ptr<AsyncTransfer> AsyncTransfer::sync(AsyncDevice& device, const PushSources& source,
                                                   const std::string& target,
                                                   const TransferOptions& options, Done done) {
  auto work = std::make_unique<PushWork>(device, source, target, options, std::move(done));
  Stages stages;
  append(stages, kSyncBegin, *work);
  if (options.planOnly()) {
    append(stages, kPlan, *work);
  } else {
    append(stages, kRemove, *work);
    append(stages, kSend, *work);
  }
  return Data::start(std::move(work), std::move(stages));
}

}  // namespace v1
}  // namespace runel
