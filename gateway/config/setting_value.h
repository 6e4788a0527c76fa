// SPDX-License-Identifier: Apache-2.0
// The values of settings: how each kind is read, checked and written.
#ifndef RUNELGW_CONFIG_SETTING_VALUE_H_
#define RUNELGW_CONFIG_SETTING_VALUE_H_

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace runelgw {

/// What a file or an option says: no value of a kind that settings have, a number, a text, a list.
using RawValue =
    std::variant<std::monostate, std::int64_t, double, std::string, std::vector<std::string>>;

/// The place of one value in `Settings`, with its rules. `set` gets a value that fits the kind of
/// the place and returns what was expected when the value is invalid: "a number from 1 to 9".
struct SettingPlace {
  /// The kind that the option's text stands for.
  enum class Kind { text, list, count, number };
  Kind kind;
  std::function<std::optional<std::string>(const RawValue&)> set;
  /// The value in the syntax of TOML.
  std::function<std::string()> show;
};

/// What the text of an option stands for. A list is separated by commas; the empty text is the
/// empty list.
[[nodiscard]] RawValue rawValueOf(SettingPlace::Kind kind, const std::string& text);

/// @p text as a string of TOML, quoted, with escapes where they are needed.
[[nodiscard]] std::string tomlString(std::string_view text);

}  // namespace runelgw

#endif  // RUNELGW_CONFIG_SETTING_VALUE_H_
