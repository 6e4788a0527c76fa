// SPDX-License-Identifier: Apache-2.0
// What the build options choose for the daemon. Only settings.cc is compiled again after a change.
#ifndef ZELL_AGENT_SETTINGS_H_
#define ZELL_AGENT_SETTINGS_H_

namespace zell::settings {

/// TCP port on which this daemon listens.
extern const int kDevicePort;
/// TCP port of the master to which this daemon connects.
extern const int kMasterPort;
extern const char* const kPidFile;
/// The file in which the daemon enters its master's name.
extern const char* const kHostsFile;

}  // namespace zell::settings

#endif  // ZELL_AGENT_SETTINGS_H_
