// SPDX-License-Identifier: Apache-2.0
// The one table of all settings. File, options, example and manual are made of it.
#ifndef RUNELGW_CONFIG_SETTINGS_TABLE_H_
#define RUNELGW_CONFIG_SETTINGS_TABLE_H_

#include <string>
#include <string_view>
#include <vector>

#include "gateway/config/setting_value.h"
#include "gateway/config/settings.h"

namespace runelgw {

/// One setting.
struct SettingRow {
  std::string_view section;
  std::string_view key;
  std::string_view argument;  ///< the name of the value in the help text
  std::string_view meaning;   ///< one or more sentences, for the example and the manual
  SettingPlace (*place)(Settings&);

  [[nodiscard]] std::string name() const;    ///< "section.key"
  [[nodiscard]] std::string option() const;  ///< "--section-key", '_' replaced by '-'
};

/// One section of the file.
struct SettingSection {
  std::string_view name;
  std::string_view meaning;
};

/// In the order of the example.
[[nodiscard]] const std::vector<SettingSection>& settingSections();
/// Grouped by section, in the order of `settingSections`.
[[nodiscard]] const std::vector<SettingRow>& settingRows();

}  // namespace runelgw

#endif  // RUNELGW_CONFIG_SETTINGS_TABLE_H_
