// SPDX-License-Identifier: Apache-2.0
// Queries the running master.
#ifndef RUNEL_IO_MASTER_CLIENT_H_
#define RUNEL_IO_MASTER_CLIENT_H_

#include <optional>
#include <string>

#include <runel/error.h>
#include <runel/loop.h>

namespace runel {

/// Reads the list of devices from the master with the control socket @p path, one JSON object a
/// line. @p limit is the timeout for each read and write.
[[nodiscard]] std::optional<Error> listDevices(const std::string& path, Milliseconds limit,
                                               std::string& lines);

}  // namespace runel

#endif  // RUNEL_IO_MASTER_CLIENT_H_
