// SPDX-License-Identifier: Apache-2.0
// Where devices are: what people write in place of an address, and lists of such.
#ifndef ZELL_RUNELCTL_CLIENT_ADDRESS_H_
#define ZELL_RUNELCTL_CLIENT_ADDRESS_H_

#include <cstdint>
#include <istream>
#include <string>
#include <vector>

#include "client/error.h"

namespace zell::ctl {

/// The port on which devices listen, and the one on which they look for their master.
constexpr std::uint16_t kDevicePort = 5111;
constexpr std::uint16_t kMasterPort = 5112;

/// One device as it was named.
struct Target {
  std::string name;  ///< how it is shown
  std::string host;  ///< address or host name; empty for one behind a master
  std::uint16_t port = kDevicePort;
  std::string through;  ///< its name at the master that it dialled, without the '@'

  [[nodiscard]] bool behindMaster() const { return !through.empty(); }
  bool operator==(const Target& other) const {
    return host == other.host && port == other.port && through == other.through;
  }
};

/// Reads HOST[:PORT] or \@NAME. False, with the reason in @p why, for anything else.
[[nodiscard]] bool parseTarget(const std::string& text, Target& target, std::string& why);

/// Reads a list with commas between and adds its targets to @p targets, each once.
[[nodiscard]] bool parseTargetList(const std::string& text, std::vector<Target>& targets,
                                   std::string& why);

/// Reads one target a line: HOST[:PORT], \@NAME, or a name for it and a blank before that. '#'
/// begins a comment. The reason of a refusal names the line.
[[nodiscard]] bool readTargets(std::istream& lines, std::vector<Target>& targets, std::string& why);

/// Splits ADDRESS:PORT for a socket to listen on; each part may be missing and is left alone then.
[[nodiscard]] bool parseListen(const std::string& text, std::string& host, std::uint16_t& port);

}  // namespace zell::ctl

#endif  // ZELL_RUNELCTL_CLIENT_ADDRESS_H_
