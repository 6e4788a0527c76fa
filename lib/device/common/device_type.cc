// SPDX-License-Identifier: Apache-2.0
#include <zell/device_type.h>

namespace zell {

const std::string& DeviceType::toString(DeviceType_t type) {
  static const std::string unknown = "unknown";
  static const std::string controller = "controller";
  static const std::string server = "server";
  switch (type) {
    case DeviceType_t::controller:
      return controller;
    case DeviceType_t::server:
      return server;
    default:
      return unknown;
  }
}

}  // namespace zell
