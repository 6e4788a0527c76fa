// SPDX-License-Identifier: Apache-2.0
// A question to the running master itself.
#ifndef ZELL_RUNELCTL_CLIENT_MASTER_CLIENT_H_
#define ZELL_RUNELCTL_CLIENT_MASTER_CLIENT_H_

#include <optional>
#include <string>

#include "client/error.h"
#include "client/loop.h"

namespace zell::ctl {

/// Asks the master whose control socket is @p path for the list of devices, one JSON object a line,
/// and waits @p limit for all of it.
[[nodiscard]] std::optional<Error> listDevices(const std::string& path, Milliseconds limit,
                                               std::string& lines);

}  // namespace zell::ctl

#endif  // ZELL_RUNELCTL_CLIENT_MASTER_CLIENT_H_
