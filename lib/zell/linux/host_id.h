// SPDX-License-Identifier: Apache-2.0
// What the device says about itself.
#ifndef ZELL_LINUX_HOST_ID_H_
#define ZELL_LINUX_HOST_ID_H_

#include <string>

#include <zell/device_type.h>

namespace zell {

/// The first word of /etc/machine-id; without one, gethostid(3) in eight hexadecimal digits.
[[nodiscard]] std::string readHostId();

/// What the kernel's descriptions of the hardware tell this device from.
[[nodiscard]] DeviceType_t findDeviceType();

}  // namespace zell

#endif  // ZELL_LINUX_HOST_ID_H_
