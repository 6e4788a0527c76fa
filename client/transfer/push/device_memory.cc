// SPDX-License-Identifier: Apache-2.0
#include "client/transfer/push/device_memory.h"

#include <algorithm>
#include <charconv>
#include <string>

#include <sys/sysmacros.h>

namespace runel {
namespace {

// Removes the first field of @p line, which a space ends, and returns it.
std::string_view takeField(std::string_view& line) {
  const std::string_view field = line.substr(0, line.find(' '));
  line.remove_prefix(std::min(field.size() + 1, line.size()));
  return field;
}

// The third field of a line is the number of the device. The type follows a field "-", behind a
// variable number of fields.
bool isMemoryMount(std::string_view line, std::string_view number) {
  (void)takeField(line);
  (void)takeField(line);
  if (takeField(line) != number) {
    return false;
  }
  while (!line.empty() && takeField(line) != "-") {
  }
  const std::string_view type = takeField(line);
  return type == "tmpfs" || type == "ramfs" || type == "devtmpfs";
}

}  // namespace

std::optional<std::uint64_t> availableMemory(std::string_view meminfo) {
  constexpr std::string_view kName = "MemAvailable:";
  std::size_t at = meminfo.find(kName);
  if (at == std::string_view::npos || (at != 0 && meminfo[at - 1] != '\n')) {
    return std::nullopt;
  }
  at = meminfo.find_first_not_of(' ', at + kName.size());
  meminfo.remove_prefix(std::min(at, meminfo.size()));
  std::uint64_t kibibytes = 0;
  const auto [end, error] =
      std::from_chars(meminfo.data(), meminfo.data() + meminfo.size(), kibibytes);
  constexpr std::uint64_t kMostKibibytes = std::uint64_t{1} << 50U;
  if (error != std::errc() || end == meminfo.data() || kibibytes > kMostKibibytes) {
    return std::nullopt;
  }
  return kibibytes * 1024;
}

bool isInMemory(std::string_view mountinfo, std::uint64_t device) {
  const std::string number = std::to_string(major(device)) + ":" + std::to_string(minor(device));
  while (!mountinfo.empty()) {
    const std::string_view line = mountinfo.substr(0, mountinfo.find('\n'));
    if (isMemoryMount(line, number)) {
      return true;
    }
    mountinfo.remove_prefix(std::min(line.size() + 1, mountinfo.size()));
  }
  return false;
}

}  // namespace runel
