// SPDX-License-Identifier: Apache-2.0
// Parses the sizes of waves: "1,10%,rest".
#ifndef RUNEL_FLEET_WAVES_H_
#define RUNEL_FLEET_WAVES_H_

#include <cstddef>
#include <string>
#include <vector>

namespace runel {

/// Parses @p text, for a total of @p devices, into @p sizes. The sum of @p sizes is @p devices: the
/// remaining devices are an additional wave. A wave has at least one device. Returns false for
/// malformed text.
[[nodiscard]] bool parseWaves(const std::string& text, std::size_t devices,
                              std::vector<std::size_t>& sizes);

}  // namespace runel

#endif  // RUNEL_FLEET_WAVES_H_
