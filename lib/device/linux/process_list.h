// SPDX-License-Identifier: Apache-2.0
#ifndef ZELL_DEVICE_LINUX_PROCESS_LIST_H_
#define ZELL_DEVICE_LINUX_PROCESS_LIST_H_

#include <string>

namespace zell {

/// Searches for a process, not a zombie, whose comm, argv[0] or last component of argv[0] is @p
/// name. Returns 0 when there is one, ESRCH when there is not, another errno value when the
/// processes cannot be listed.
[[nodiscard]] int findProcess(const std::string& name);

}  // namespace zell

#endif  // ZELL_DEVICE_LINUX_PROCESS_LIST_H_
