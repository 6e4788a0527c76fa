// SPDX-License-Identifier: Apache-2.0
// The command line.
#ifndef ZELL_MAIN_OPTIONS_H_
#define ZELL_MAIN_OPTIONS_H_

#include <optional>
#include <ostream>
#include <string>
#include <vector>

namespace zell {

/// The settings from the command line.
struct Options {
  std::string address;  ///< address of the master; not checked here
  bool daemon = true;
  int verbose = 0;
  int logOptions = 0;  ///< for openlog(3)

  /// Set when the program ends at once with this status.
  std::optional<int> exitStatus;
};

/// Parses @p args (without the program's name) from the left. Ignores unknown arguments. Writes the
/// usage text to @p out when it is requested or when an address is missing.
Options scanOptions(const std::vector<std::string>& args, std::ostream& out);

}  // namespace zell

#endif  // ZELL_MAIN_OPTIONS_H_
