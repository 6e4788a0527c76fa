// SPDX-License-Identifier: Apache-2.0
// One request of a local command, and the words for its failure.
#ifndef RUNELGW_CLI_ASK_GATEWAY_H_
#define RUNELGW_CLI_ASK_GATEWAY_H_

#include <optional>
#include <string>

#include <nlohmann/json_fwd.hpp>

#include "base/unique_fd.h"
#include "gateway/cli/local_session.h"

namespace runelgw {

/// Sends @p request and returns the answer. Sets @p file, if given, to the descriptor that comes
/// with it. No value after an error, which is on standard error then.
[[nodiscard]] std::optional<nlohmann::json> askGateway(LocalSession& session,
                                                       const nlohmann::json& request,
                                                       zell::UniqueFd* file = nullptr);

/// Opens a session; nullptr after an error, which is on standard error then.
[[nodiscard]] std::unique_ptr<LocalSession> openSession(const Settings& settings);

/// Writes "runelgw: TEXT" to standard error and returns the exit status of a failure.
int fail(const std::string& text);

}  // namespace runelgw

#endif  // RUNELGW_CLI_ASK_GATEWAY_H_
