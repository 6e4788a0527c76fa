// SPDX-License-Identifier: Apache-2.0
// Device addresses and lists of them.
#ifndef RUNEL_CORE_ADDRESS_H_
#define RUNEL_CORE_ADDRESS_H_

#include <cstdint>
#include <istream>
#include <string>
#include <vector>

#include "client/core/error.h"
#include "protocol/protocol.h"

namespace runel {

/// One device as the user named it.
struct Target {
  std::string name;  ///< the name in output
  std::string host;  ///< address or host name; empty for a device behind a master
  std::uint16_t port = zell::kDevicePort;
  std::string through;  ///< its name at the master, without the '@'

  [[nodiscard]] bool behindMaster() const { return !through.empty(); }
  bool operator==(const Target& other) const {
    return host == other.host && port == other.port && through == other.through;
  }
};

/// Parses HOST[:PORT] or \@NAME. Returns false and the error in @p why for other text.
[[nodiscard]] bool parseTarget(const std::string& text, Target& target, std::string& why);

/// Parses a comma-separated list and adds its targets to @p targets, without duplicates.
[[nodiscard]] bool parseTargetList(const std::string& text, std::vector<Target>& targets,
                                   std::string& why);

/// Reads one target a line: HOST[:PORT] or \@NAME, optionally preceded by a name and a blank. '#'
/// starts a comment. The error in @p why names the line.
[[nodiscard]] bool readTargets(std::istream& lines, std::vector<Target>& targets, std::string& why);

/// Parses ADDRESS[:PORT] of a listening socket. An omitted part leaves its parameter unchanged.
[[nodiscard]] bool parseListen(const std::string& text, std::string& host, std::uint16_t& port);

}  // namespace runel

#endif  // RUNEL_CORE_ADDRESS_H_
