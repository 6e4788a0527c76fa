// SPDX-License-Identifier: Apache-2.0
// The stages of a pull, in the order in which they run.
#ifndef RUNEL_TRANSFER_PULL_STAGES_H_
#define RUNEL_TRANSFER_PULL_STAGES_H_

#include <memory>

#include "client/transfer/pull/work.h"

namespace runel {

// look_at_sources.cc: what there is, and its local path.
std::unique_ptr<Stage> lookAtSources(PullWork& work);

// tell_changes.cc: what the caller wants to know, before it is done.
std::unique_ptr<Stage> tellFetched(PullWork& work);

// local_directories.cc
std::unique_ptr<Stage> makeLocalDirectories(PullWork& work);
std::unique_ptr<Stage> getDirectoryTimes(PullWork& work);
std::unique_ptr<Stage> finishLocalDirectories(PullWork& work);

// fetch_small_files.cc, fetch_large_files.cc
std::unique_ptr<Stage> fetchSmallFiles(PullWork& work);
std::unique_ptr<Stage> fetchLargeFiles(PullWork& work);

// finish_files.cc
std::unique_ptr<Stage> makeLocalLinks(PullWork& work);
std::unique_ptr<Stage> compareFetchedFiles(PullWork& work);

}  // namespace runel

#endif  // RUNEL_TRANSFER_PULL_STAGES_H_
