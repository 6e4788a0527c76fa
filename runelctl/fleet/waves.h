// SPDX-License-Identifier: Apache-2.0
// "1,10%,rest": how many devices at first, how many next.
#ifndef ZELL_RUNELCTL_FLEET_WAVES_H_
#define ZELL_RUNELCTL_FLEET_WAVES_H_

#include <cstddef>
#include <string>
#include <vector>

namespace zell::ctl {

/// Reads @p text, for @p devices devices in all, into @p sizes, which add up to them: what is left
/// after the last wave named is one more wave. Each wave is of one device at least. False for a
/// text of another form.
[[nodiscard]] bool parseWaves(const std::string& text, std::size_t devices,
                              std::vector<std::size_t>& sizes);

}  // namespace zell::ctl

#endif  // ZELL_RUNELCTL_FLEET_WAVES_H_
