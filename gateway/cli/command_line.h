// SPDX-License-Identifier: Apache-2.0
// The command line of the gateway.
#ifndef RUNELGW_CLI_COMMAND_LINE_H_
#define RUNELGW_CLI_COMMAND_LINE_H_

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "gateway/config/settings_table.h"

namespace runelgw {

/// What a command line asks for.
struct CommandLine {
  enum class Command {
    run,
    checkConfig,
    tokenCreate,
    tokenList,
    tokenRevoke,
    backup,
    restore,
    orderlyEnd,
  };
  Command command = Command::run;
  /// Options of settings in their order, and the values.
  std::vector<std::pair<const SettingRow*, std::string>> settings;
  std::optional<std::string> configFile;

  // check-config
  bool example = false;  ///< print the example file
  bool print = false;    ///< print the settings

  // token
  std::string name;  ///< of a new token, or of one to be revoked
  std::string role;
  std::vector<std::string> groups;
  std::vector<std::string> kinds;
  std::string certificate;
  std::optional<std::int64_t> lifetime;  ///< in milliseconds
  bool json = false;

  std::string file;  ///< of backup, restore and check-config
};

/// A parsed command line, or what to print and the exit status.
struct Parsed {
  std::optional<CommandLine> line;
  int status = 0;
  std::string output;  ///< for standard output
  std::string error;   ///< for standard error
};

[[nodiscard]] Parsed parseCommandLine(int argc, const char* const* argv);

/// "90d", "12h", "30m", "45s" or "2w" in milliseconds.
[[nodiscard]] std::optional<std::int64_t> parseLifetime(const std::string& text);

}  // namespace runelgw

#endif  // RUNELGW_CLI_COMMAND_LINE_H_
