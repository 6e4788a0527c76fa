// SPDX-License-Identifier: Apache-2.0
#include "device/linux/host_id.h"

#include <cstdint>
#include <cstdio>
#include <sstream>

#include <unistd.h>

#include "device/linux/file_io.h"

namespace zell {
namespace {

constexpr std::size_t kLongestId = 65536;

bool exists(const char* path) {
  return ::access(path, F_OK) == 0;
}

}  // namespace

std::string readHostId() {
  std::string content;
  if (readWholeFile("/etc/machine-id", kLongestId, content) == 0) {
    std::string word;
    std::istringstream in(content);
    in.exceptions(std::ios_base::badbit);  // an allocation failure must not give another id
    if (in >> word) {
      return word;
    }
  }
  char digits[9];
  std::snprintf(digits, sizeof digits, "%08x", static_cast<std::uint32_t>(gethostid()));
  return digits;
}

DeviceType_t findDeviceType() {
  if (exists("/proc/device-tree/compatible") ||
      exists("/sys/firmware/devicetree/base/compatible")) {
    return DeviceType_t::controller;
  }
  return exists("/sys/class/dmi/id") ? DeviceType_t::server : DeviceType_t::unknown;
}

}  // namespace zell
