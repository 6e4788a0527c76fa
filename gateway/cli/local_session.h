// SPDX-License-Identifier: Apache-2.0
// Where local commands run: in the gateway, or without one in this process.
#ifndef RUNELGW_CLI_LOCAL_SESSION_H_
#define RUNELGW_CLI_LOCAL_SESSION_H_

#include <memory>
#include <string>

#include <runel/result.h>

#include "gateway/app/control_server.h"
#include "gateway/config/settings.h"

namespace runelgw {

/// Runs requests of `LocalCommands`. BLOCKS.
class LocalSession {
 public:
  /// Connects to the gateway of @p settings, or else opens its database. Then this process takes
  /// over the user that owns the state directory, so that the gateway can use what it writes: open
  /// other files before. The error is one sentence.
  [[nodiscard]] static runel::Result<std::unique_ptr<LocalSession>> open(const Settings& settings);

  LocalSession() = default;
  virtual ~LocalSession() = default;
  LocalSession(const LocalSession&) = delete;
  LocalSession& operator=(const LocalSession&) = delete;

  /// Sends the request @p line. An answer with an "error" is an answer too.
  [[nodiscard]] virtual runel::Result<ControlAnswer> ask(const std::string& line) = 0;
};

}  // namespace runelgw

#endif  // RUNELGW_CLI_LOCAL_SESSION_H_
