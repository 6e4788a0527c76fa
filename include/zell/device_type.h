// SPDX-License-Identifier: Apache-2.0
#ifndef ZELL_DEVICE_TYPE_H_
#define ZELL_DEVICE_TYPE_H_

#include <string>

namespace zell {

/// The device types that "devicetype" distinguishes.
enum class DeviceType_t {
  unknown = 0,
  controller = 1,  ///< a board described by a device tree
  server = 2,      ///< a machine that describes itself through DMI
};

struct DeviceType {
  /// The name of @p type in the reply to "devicetype". The string lives as long as the program.
  static const std::string& toString(DeviceType_t type);
};

}  // namespace zell

#endif  // ZELL_DEVICE_TYPE_H_
