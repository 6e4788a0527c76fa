// SPDX-License-Identifier: Apache-2.0
#ifndef ZELL_LINUX_PROCESS_LIST_H_
#define ZELL_LINUX_PROCESS_LIST_H_

#include <string>

namespace zell {

/// Looks for a process that is no zombie and whose comm, or argv[0], or that one's last component,
/// is @p name. 0 when there is one, ESRCH when there is none, another errno value when the
/// processes cannot be listed.
[[nodiscard]] int findProcess(const std::string& name);

}  // namespace zell

#endif  // ZELL_LINUX_PROCESS_LIST_H_
