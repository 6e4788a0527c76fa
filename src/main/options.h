// SPDX-License-Identifier: Apache-2.0
// The command line.
#ifndef ZELL_MAIN_OPTIONS_H_
#define ZELL_MAIN_OPTIONS_H_

#include <optional>
#include <ostream>
#include <string>
#include <vector>

namespace zell {

/// What the command line sets.
struct Options {
  std::string address = "127.0.0.1";  ///< of the master; not checked here
  bool daemon = true;
  int verbose = 0;
  int logOptions = 0;  ///< for openlog(3)

  /// Set when the program is to end at once with this status.
  std::optional<int> exitStatus;
};

/// Reads @p args, the program's name left out, from the left. Unknown arguments are ignored. Writes
/// the usage text to @p out where it is asked for or an address is missing.
Options scanOptions(const std::vector<std::string>& args, std::ostream& out);

}  // namespace zell

#endif  // ZELL_MAIN_OPTIONS_H_
