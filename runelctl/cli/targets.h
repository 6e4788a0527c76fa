// SPDX-License-Identifier: Apache-2.0
// Files of devices, and addresses to listen on.
#ifndef RUNELCTL_CLI_TARGETS_H_
#define RUNELCTL_CLI_TARGETS_H_

#include <cstdint>
#include <istream>
#include <string>
#include <vector>

#include <runel/address.h>

namespace runelctl {

/// One line of a file of devices.
struct TargetLine {
  int number;
  std::string name;  ///< empty if the line has only a device
  std::string device;
};

/// Reads one device a line, optionally preceded by a name and a blank. '#' starts a comment.
/// Returns false and the error in @p why, which names the line, for a line with more fields.
[[nodiscard]] bool readTargetLines(std::istream& lines, std::vector<TargetLine>& targets,
                                   std::string& why);

/// Reads such a file of HOST[:PORT] or \@NAME, without duplicates.
[[nodiscard]] bool readTargets(std::istream& lines, std::vector<runel::Address>& targets,
                               std::string& why);

/// Replaces the file @p path by @p targets, one device a line, on disk when it returns. Returns 0
/// or an errno value; the old file stays after a failure.
[[nodiscard]] int writeTargets(const std::string& path, const std::vector<runel::Address>& targets);

/// Parses ADDRESS[:PORT] of a listening socket. An omitted part leaves its parameter unchanged.
[[nodiscard]] bool parseListen(const std::string& text, std::string& host, std::uint16_t& port);

}  // namespace runelctl

#endif  // RUNELCTL_CLI_TARGETS_H_
