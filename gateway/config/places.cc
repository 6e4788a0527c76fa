// SPDX-License-Identifier: Apache-2.0
#include "gateway/config/places.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdio>
#include <optional>

#include "gateway/config/endpoint.h"

namespace runelgw {
namespace {

using Expected = std::optional<std::string>;

// Without the zeros at its end: "75", "0.5".
std::string numberText(double number) {
  char text[64];
  (void)std::snprintf(text, sizeof text, "%.3f", number);
  std::string shown = text;
  shown.erase(shown.find_last_not_of('0') + 1);
  if (shown.back() == '.') {
    shown.pop_back();
  }
  return shown;
}

std::string range(const std::string& least, const std::string& most) {
  return "from " + least + " to " + most;
}

template <typename Values, typename Show>
std::string tomlList(const Values& values, Show show) {
  std::string list;
  for (const auto& value : values) {
    list += (list.empty() ? "" : ", ") + tomlString(show(value));
  }
  return "[" + list + "]";
}

std::optional<double> finiteNumberOf(const RawValue& raw) {
  if (const auto* whole = std::get_if<std::int64_t>(&raw)) {
    return static_cast<double>(*whole);
  }
  const auto* number = std::get_if<double>(&raw);
  return number != nullptr && std::isfinite(*number) ? std::optional<double>(*number)
                                                     : std::nullopt;
}

}  // namespace

SettingPlace textPlace(std::string& value, TextRule rule) {
  return {SettingPlace::Kind::text,
          [&value, rule](const RawValue& raw) -> Expected {
            const auto* text = std::get_if<std::string>(&raw);
            if (text == nullptr || !rule.accepts(*text)) {
              return rule.expected;
            }
            value = *text;
            return std::nullopt;
          },
          [&value] { return tomlString(value); }};
}

SettingPlace listPlace(std::vector<std::string>& value, TextRule rule) {
  return {SettingPlace::Kind::list,
          [&value, rule](const RawValue& raw) -> Expected {
            const auto* list = std::get_if<std::vector<std::string>>(&raw);
            if (list == nullptr || !std::all_of(list->begin(), list->end(), rule.accepts)) {
              return std::string("a list of ") + rule.expected;
            }
            value = *list;
            return std::nullopt;
          },
          [&value] { return tomlList(value, [](const std::string& text) { return text; }); }};
}

SettingPlace endpointsPlace(std::vector<Endpoint>& value, bool ipv4Only) {
  return {SettingPlace::Kind::list,
          [&value, ipv4Only](const RawValue& raw) -> Expected {
            const auto* list = std::get_if<std::vector<std::string>>(&raw);
            std::vector<Endpoint> endpoints;
            for (const std::string& text : list == nullptr ? std::vector<std::string>() : *list) {
              const std::optional<Endpoint> endpoint = parseEndpoint(text);
              if (endpoint && !(ipv4Only && isIpv6(*endpoint))) {
                endpoints.push_back(*endpoint);
              }
            }
            if (list == nullptr || list->empty() || endpoints.size() != list->size()) {
              return ipv4Only ? "a list of ADDRESS:PORT with IPv4 addresses"
                              : "a list of ADDRESS:PORT or [IPV6-ADDRESS]:PORT";
            }
            value = std::move(endpoints);
            return std::nullopt;
          },
          [&value] { return tomlList(value, textOf); }};
}

SettingPlace timePlace(runel::Milliseconds& value, runel::Milliseconds unit, double least,
                       double most) {
  const auto scale = static_cast<double>(unit.count());
  return {SettingPlace::Kind::number,
          [&value, scale, least, most](const RawValue& raw) -> Expected {
            const std::optional<double> number = finiteNumberOf(raw);
            if (!number || *number < least || *number > most) {
              return "a number " + range(numberText(least), numberText(most));
            }
            value = runel::Milliseconds(std::llround(*number * scale));
            return std::nullopt;
          },
          [&value, scale] { return numberText(static_cast<double>(value.count()) / scale); }};
}

SettingPlace numberPlace(double& value, double least, double most) {
  return {SettingPlace::Kind::number,
          [&value, least, most](const RawValue& raw) -> Expected {
            const std::optional<double> number = finiteNumberOf(raw);
            if (!number || *number < least || *number > most) {
              return "a number " + range(numberText(least), numberText(most));
            }
            value = *number;
            return std::nullopt;
          },
          [&value] { return numberText(value); }};
}

SettingPlace choicePlace(std::function<void(std::size_t)> set, std::function<std::size_t()> get,
                         const std::vector<std::string>& names) {
  return {SettingPlace::Kind::text,
          [set = std::move(set), names](const RawValue& raw) -> Expected {
            const auto* text = std::get_if<std::string>(&raw);
            const auto found =
                text == nullptr ? names.end() : std::find(names.begin(), names.end(), *text);
            if (found == names.end()) {
              std::string all;
              for (const std::string& name : names) {
                all += (all.empty() ? "" : name == names.back() ? " or " : ", ") + tomlString(name);
              }
              return all;
            }
            set(static_cast<std::size_t>(found - names.begin()));
            return std::nullopt;
          },
          [get = std::move(get), names] { return tomlString(names[get()]); }};
}

SettingPlace wholePlace(std::function<void(std::uint64_t)> set, std::function<std::uint64_t()> get,
                        std::uint64_t least, std::uint64_t most) {
  return {SettingPlace::Kind::count,
          [set = std::move(set), least, most](const RawValue& raw) -> Expected {
            const auto* number = std::get_if<std::int64_t>(&raw);
            if (number == nullptr || *number < 0 || static_cast<std::uint64_t>(*number) < least ||
                static_cast<std::uint64_t>(*number) > most) {
              return "a whole number " + range(std::to_string(least), std::to_string(most));
            }
            set(static_cast<std::uint64_t>(*number));
            return std::nullopt;
          },
          [get = std::move(get)] { return std::to_string(get()); }};
}

}  // namespace runelgw
