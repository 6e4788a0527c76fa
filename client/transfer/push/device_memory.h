// SPDX-License-Identifier: Apache-2.0
// What files of the device below /proc say about its memory.
#ifndef RUNEL_TRANSFER_PUSH_DEVICE_MEMORY_H_
#define RUNEL_TRANSFER_PUSH_DEVICE_MEMORY_H_

#include <cstdint>
#include <optional>
#include <string_view>

namespace runel {

/// The memory that programs may still use, in bytes: the line MemAvailable of @p meminfo. Nothing
/// if it has no such line.
[[nodiscard]] std::optional<std::uint64_t> availableMemory(std::string_view meminfo);

/// Whether the file system with the number @p device is one in memory, by the lines of @p
/// mountinfo.
[[nodiscard]] bool isInMemory(std::string_view mountinfo, std::uint64_t device);

}  // namespace runel

#endif  // RUNEL_TRANSFER_PUSH_DEVICE_MEMORY_H_
