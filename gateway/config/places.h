// SPDX-License-Identifier: Apache-2.0
// A `SettingPlace` for each kind of value.
#ifndef RUNELGW_CONFIG_PLACES_H_
#define RUNELGW_CONFIG_PLACES_H_

#include <cstdint>
#include <functional>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include <runel/request.h>

#include "gateway/config/setting_value.h"
#include "gateway/config/settings.h"

namespace runelgw {

/// Whether a text is valid, and what was expected if it is not.
struct TextRule {
  bool (*accepts)(const std::string& text);
  const char* expected;
};

/// A text that @p rule accepts.
[[nodiscard]] SettingPlace textPlace(std::string& value, TextRule rule);
/// A list of texts, each of which @p rule accepts.
[[nodiscard]] SettingPlace listPlace(std::vector<std::string>& value, TextRule rule);
/// At least one address to listen on.
[[nodiscard]] SettingPlace endpointsPlace(std::vector<Endpoint>& value, bool ipv4Only);
/// A time in units of @p unit, fractions included, from @p least to @p most of them.
[[nodiscard]] SettingPlace timePlace(runel::Milliseconds& value, runel::Milliseconds unit,
                                     double least, double most);
/// A number with fractions, from @p least to @p most.
[[nodiscard]] SettingPlace numberPlace(double& value, double least, double most);
/// One of the @p names, which stand for 0, 1, 2...
[[nodiscard]] SettingPlace choicePlace(std::function<void(std::size_t)> set,
                                       std::function<std::size_t()> get,
                                       const std::vector<std::string>& names);

/// A whole number from @p least to @p most, set and read by functions.
[[nodiscard]] SettingPlace wholePlace(std::function<void(std::uint64_t)> set,
                                      std::function<std::uint64_t()> get, std::uint64_t least,
                                      std::uint64_t most);

/// A whole number from @p least to @p most.
template <typename Number>
[[nodiscard]] SettingPlace countPlace(Number& value, std::uint64_t least, std::uint64_t most) {
  return wholePlace([&value](std::uint64_t number) { value = static_cast<Number>(number); },
                    [&value] { return std::uint64_t{value}; }, least, most);
}

/// One of the @p names, in the order of the enumerators.
template <typename Enumeration>
[[nodiscard]] SettingPlace enumPlace(Enumeration& value, const std::vector<std::string>& names) {
  return choicePlace([&value](std::size_t index) { value = static_cast<Enumeration>(index); },
                     [&value] { return static_cast<std::size_t>(value); }, names);
}

}  // namespace runelgw

#endif  // RUNELGW_CONFIG_PLACES_H_
