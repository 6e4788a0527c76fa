// SPDX-License-Identifier: Apache-2.0
// Tables for users.
#ifndef RUNELCTL_OUTPUT_TABLE_H_
#define RUNELCTL_OUTPUT_TABLE_H_

#include <string>
#include <vector>

namespace runelctl {

using Table = std::vector<std::vector<std::string>>;

/// The lines of @p table, with aligned columns. Each row has the same number of cells, which may
/// have any bytes.
[[nodiscard]] std::string tableText(const Table& table);

}  // namespace runelctl

#endif  // RUNELCTL_OUTPUT_TABLE_H_
