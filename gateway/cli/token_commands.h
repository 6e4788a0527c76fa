// SPDX-License-Identifier: Apache-2.0
// The commands "token create", "token list" and "token revoke".
#ifndef RUNELGW_CLI_TOKEN_COMMANDS_H_
#define RUNELGW_CLI_TOKEN_COMMANDS_H_

#include "gateway/cli/command_line.h"
#include "gateway/config/settings.h"

namespace runelgw {

///@{
/// Return the exit status. Secrets and lists go to standard output, everything else to standard
/// error.
[[nodiscard]] int createToken(const CommandLine& line, const Settings& settings);
[[nodiscard]] int listTokens(const CommandLine& line, const Settings& settings);
[[nodiscard]] int revokeToken(const CommandLine& line, const Settings& settings);
///@}

}  // namespace runelgw

#endif  // RUNELGW_CLI_TOKEN_COMMANDS_H_
