// SPDX-License-Identifier: Apache-2.0
// Queries the running master.
#ifndef ZELL_CLIENT_CORE_MASTER_CLIENT_H_
#define ZELL_CLIENT_CORE_MASTER_CLIENT_H_

#include <optional>
#include <string>

#include "client/core/error.h"
#include "client/core/loop.h"

namespace zell::ctl {

/// Reads the list of devices from the master with the control socket @p path, one JSON object a
/// line. @p limit is the timeout for each read and write.
[[nodiscard]] std::optional<Error> listDevices(const std::string& path, Milliseconds limit,
                                               std::string& lines);

}  // namespace zell::ctl

#endif  // ZELL_CLIENT_CORE_MASTER_CLIENT_H_
