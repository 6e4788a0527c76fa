// SPDX-License-Identifier: Apache-2.0
#include "agent/settings.h"

namespace zell::settings {

const int kDevicePort = RUNELD_DEVICE_PORT;
const int kMasterPort = RUNELD_MASTER_PORT;
const char* const kPidFile = RUNELD_PID_FILE;
const char* const kHostsFile = RUNELD_HOSTS_FILE;

}  // namespace zell::settings
