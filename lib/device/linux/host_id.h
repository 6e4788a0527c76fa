// SPDX-License-Identifier: Apache-2.0
// The identity and the type of the device.
#ifndef ZELL_DEVICE_LINUX_HOST_ID_H_
#define ZELL_DEVICE_LINUX_HOST_ID_H_

#include <string>

#include <zell/device_type.h>

namespace zell {

/// The first word of /etc/machine-id. Without one, gethostid(3) in eight hexadecimal digits.
[[nodiscard]] std::string readHostId();

/// The device type according to the kernel's descriptions of the hardware.
[[nodiscard]] DeviceType_t findDeviceType();

}  // namespace zell

#endif  // ZELL_DEVICE_LINUX_HOST_ID_H_
