// SPDX-License-Identifier: Apache-2.0
// The stages of a push and of a sync, in the order in which they run.
#ifndef RUNEL_TRANSFER_PUSH_STAGES_H_
#define RUNEL_TRANSFER_PUSH_STAGES_H_

#include <memory>

#include "client/transfer/push/work.h"

namespace runel {

// find_target.cc: the path of each entry on the device.
std::unique_ptr<Stage> findPushTarget(PushWork& work);
std::unique_ptr<Stage> findSyncTarget(PushWork& work);

// compare_tree.cc: the differences of a sync.
std::unique_ptr<Stage> compareTree(PushWork& work);
std::unique_ptr<Stage> removeOthers(PushWork& work);

// tell_changes.cc: what the caller wants to know, before it is done.
std::unique_ptr<Stage> tellRemovals(PushWork& work);
std::unique_ptr<Stage> tellSent(PushWork& work);

// prepare_targets.cc
std::unique_ptr<Stage> lookAtDirectories(PushWork& work);
std::unique_ptr<Stage> makeDirectories(PushWork& work);
std::unique_ptr<Stage> lookAtTargets(PushWork& work);

// send_archives.cc, send_small_files.cc, send_large_files.cc
std::unique_ptr<Stage> sendArchives(PushWork& work);
std::unique_ptr<Stage> sendSmallFiles(PushWork& work);
std::unique_ptr<Stage> sendLargeFiles(PushWork& work);

// finish_targets.cc
std::unique_ptr<Stage> makeLinks(PushWork& work);
std::unique_ptr<Stage> setModes(PushWork& work);
std::unique_ptr<Stage> setTimes(PushWork& work);
std::unique_ptr<Stage> compareSentFiles(PushWork& work);

// set_directories.cc
std::unique_ptr<Stage> setDirectories(PushWork& work);

}  // namespace runel

#endif  // RUNEL_TRANSFER_PUSH_STAGES_H_
