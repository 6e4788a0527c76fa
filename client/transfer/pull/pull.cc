// SPDX-License-Identifier: Apache-2.0
// Pull: the list of its stages.
#include <utility>

#include "client/transfer/pull/stages.h"
#include "client/transfer/running.h"

namespace runel {
namespace {

using PullStageMaker = std::unique_ptr<Stage> (*)(PullWork& work);

constexpr PullStageMaker kLook[] = {
    lookAtSources,  // "stat" of each; "walktree" of directories
    tellFetched,    // to the caller
};
constexpr PullStageMaker kFetch[] = {
    makeLocalDirectories,    // opens the target and creates it if it is a directory
    getDirectoryTimes,       // "stat" of each: walktree reports only whole seconds
    fetchSmallFiles,         // "read" of each, between two "stat"
    fetchLargeFiles,         // in pieces: dd for each, between two "stat"
    makeLocalLinks,          // they replace files, but no directories
    compareFetchedFiles,     // sha256sum, if requested
    finishLocalDirectories,  // modes and times, which new entries would change
};

}  // namespace

inline namespace v1 {

std::unique_ptr<AsyncTransfer> AsyncTransfer::pull(AsyncDevice& device,
                                                   const std::vector<std::string>& sources,
                                                   const std::string& target,
                                                   const TransferOptions& options, Done done) {
  auto work = std::make_unique<PullWork>(device, sources, target, options, std::move(done));
  Stages stages;
  for (const PullStageMaker make : kLook) {
    stages.push_back(make(*work));
  }
  for (const PullStageMaker make : kFetch) {
    if (!options.planOnly()) {
      stages.push_back(make(*work));
    }
  }
  return Data::start(std::move(work), std::move(stages));
}

}  // namespace v1
}  // namespace runel
