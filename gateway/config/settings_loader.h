// SPDX-License-Identifier: Apache-2.0
// Reads settings from a TOML file and from options.
#ifndef RUNELGW_CONFIG_SETTINGS_LOADER_H_
#define RUNELGW_CONFIG_SETTINGS_LOADER_H_

#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "gateway/config/settings.h"
#include "gateway/config/settings_table.h"

namespace runelgw {

/// Starts with the defaults. Files and options replace them, the later ones the earlier ones.
/// Collects all problems, so that an operator sees them at once.
class SettingsLoader {
 public:
  /// Reads the file @p path. A file that cannot be read is a problem.
  void readFile(const std::string& path);
  /// Reads the TOML text @p text, which @p file contains.
  void readText(std::string_view text, const std::string& file);
  /// Reads the value of the option of @p row.
  void readOption(const SettingRow& row, const std::string& value);
  /// Looks for values that contradict each other. To be called last.
  void compare();

  [[nodiscard]] const Settings& settings() const { return settings_; }
  /// "FILE:LINE: SENTENCE" or "--OPTION: SENTENCE", in the order in which they were found.
  [[nodiscard]] const std::vector<std::string>& problems() const { return problems_; }

 private:
  void problem(const std::string& where, const std::string& text);
  void contradiction(const std::string& key, const std::string& text);
  void set(const SettingRow& row, const RawValue& value, const std::string& where);
  void compareTls();

  Settings settings_;
  std::map<std::string, std::string> origins_;  // by the name of the key: where its value was set
  std::vector<std::string> problems_;
};

}  // namespace runelgw

#endif  // RUNELGW_CONFIG_SETTINGS_LOADER_H_
