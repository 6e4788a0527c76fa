// SPDX-License-Identifier: Apache-2.0
// The keys of a TOML file with their lines.
#ifndef RUNELGW_CONFIG_READ_TOML_H_
#define RUNELGW_CONFIG_READ_TOML_H_

#include <string>
#include <string_view>
#include <vector>

#include "gateway/config/setting_value.h"

namespace runelgw {

/// One key of a file, or one problem of it.
struct TomlEntry {
  int line = 0;
  std::string section;  ///< empty: the key is at the top level
  std::string key;
  RawValue value;
  std::string problem;  ///< not empty: what is wrong with this line; the rest has no meaning
};

/// The keys of the sections of @p text, in the order of their lines. A file that is no TOML has
/// one entry, its problem.
[[nodiscard]] std::vector<TomlEntry> readToml(std::string_view text);

}  // namespace runelgw

#endif  // RUNELGW_CONFIG_READ_TOML_H_
