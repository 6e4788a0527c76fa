// SPDX-License-Identifier: Apache-2.0
// The other end of the control socket.
#ifndef RUNELGW_CLI_CONTROL_CLIENT_H_
#define RUNELGW_CLI_CONTROL_CLIENT_H_

#include <optional>
#include <string>
#include <utility>

#include <runel/result.h>

#include "base/unique_fd.h"
#include "gateway/app/control_server.h"

namespace runelgw {

/// Asks a running gateway, and BLOCKS until it has answered.
class ControlClient {
 public:
  /// No value: no gateway listens at @p path. The error is one sentence.
  [[nodiscard]] static runel::Result<std::optional<ControlClient>> connect(const std::string& path);

  /// Sends the request @p line, without a line feed, and returns the answer.
  [[nodiscard]] runel::Result<ControlAnswer> ask(const std::string& line);

 private:
  explicit ControlClient(zell::UniqueFd socket) : socket_(std::move(socket)) {}

  zell::UniqueFd socket_;
};

}  // namespace runelgw

#endif  // RUNELGW_CLI_CONTROL_CLIENT_H_
