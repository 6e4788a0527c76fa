// SPDX-License-Identifier: Apache-2.0
// The commands "backup" and "restore".
#ifndef RUNELGW_CLI_COPY_COMMANDS_H_
#define RUNELGW_CLI_COPY_COMMANDS_H_

#include "gateway/cli/command_line.h"
#include "gateway/config/settings.h"

namespace runelgw {

///@{
/// Return the exit status. Messages go to standard error.
[[nodiscard]] int backUp(const CommandLine& line, const Settings& settings);
[[nodiscard]] int restore(const CommandLine& line, const Settings& settings);
///@}

}  // namespace runelgw

#endif  // RUNELGW_CLI_COPY_COMMANDS_H_
