// SPDX-License-Identifier: Apache-2.0
// The device's hosts file, which tells the local programs where the master is.
#ifndef ZELL_AGENT_HOSTS_FILE_H_
#define ZELL_AGENT_HOSTS_FILE_H_

#include <string>

namespace zell {

/// The name under which the programs on the device know the master.
constexpr char kMasterAlias[] = "update-master";

/// Makes kMasterAlias name @p address (a dotted quad) in the hosts file @p path: drops every line
/// in which a blank stands before the alias, keeps all others, adds one line. A missing file is
/// made. The new content is written to @p path + ".new", synced and renamed, so that the file is
/// always the old or the new one. Only root can read the new file until it is complete; then it
/// gets the mode and the owner of the old one (0644 for a missing one). Every failure is logged and
/// leaves the file as it was.
void setEtcHosts(const std::string& path, const std::string& address);

}  // namespace zell

#endif  // ZELL_AGENT_HOSTS_FILE_H_
