// SPDX-License-Identifier: Apache-2.0
// Lists directories of a device for completion.
#ifndef RUNELCTL_SHELL_REMOTE_DIRECTORY_H_
#define RUNELCTL_SHELL_REMOTE_DIRECTORY_H_

#include <string>
#include <vector>

#include <runel/async_device.h>
#include <runel/loop.h>

#include "shell/completer.h"

namespace runelctl {

/// Sends @p request and turns the loop until the answer arrives, for @p limit at most. SIGINT ends
/// the wait too. The reply then has an error with `Cause::cancelled`.
[[nodiscard]] runel::Reply askAndWait(runel::AsyncDevice& device, const runel::Request& request,
                                      runel::Milliseconds limit);

/// The names in @p directory and which of them are directories. Empty after a failure.
[[nodiscard]] std::vector<DirectoryEntry> listRemote(runel::AsyncDevice& device,
                                                     const std::string& directory,
                                                     runel::Milliseconds limit);

}  // namespace runelctl

#endif  // RUNELCTL_SHELL_REMOTE_DIRECTORY_H_
