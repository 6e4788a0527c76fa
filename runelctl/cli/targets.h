// SPDX-License-Identifier: Apache-2.0
// Lists of devices, as the command line and inventory files give them.
#ifndef RUNELCTL_CLI_TARGETS_H_
#define RUNELCTL_CLI_TARGETS_H_

#include <cstdint>
#include <istream>
#include <string>
#include <vector>

#include <runel/address.h>

namespace runelctl {

/// Parses a comma-separated list and adds its addresses to @p targets, without duplicates. Returns
/// false and the error in @p why for other text.
[[nodiscard]] bool parseTargetList(const std::string& text, std::vector<runel::Address>& targets,
                                   std::string& why);

/// Reads one device a line: HOST[:PORT] or \@NAME, optionally preceded by a name and a blank. '#'
/// starts a comment. The error in @p why names the line.
[[nodiscard]] bool readTargets(std::istream& lines, std::vector<runel::Address>& targets,
                               std::string& why);

/// Replaces the file @p path by @p targets, one device a line, on disk when it returns. Returns 0
/// or an errno value; the old file stays after a failure.
[[nodiscard]] int writeTargets(const std::string& path, const std::vector<runel::Address>& targets);

/// Parses ADDRESS[:PORT] of a listening socket. An omitted part leaves its parameter unchanged.
[[nodiscard]] bool parseListen(const std::string& text, std::string& host, std::uint16_t& port);

}  // namespace runelctl

#endif  // RUNELCTL_CLI_TARGETS_H_
