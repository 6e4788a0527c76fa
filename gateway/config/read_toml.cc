// SPDX-License-Identifier: Apache-2.0
#include "gateway/config/read_toml.h"

#include <algorithm>
#include <optional>
#include <utility>

#include <toml++/toml.h>

#include "text/stray_character.h"

namespace runelgw {
namespace {

TomlEntry problemAt(int line, std::string text) {
  TomlEntry entry;
  entry.line = line;
  entry.problem = std::move(text);
  return entry;
}

int lineOf(const toml::source_region& region) {
  return static_cast<int>(region.begin.line);
}

// No value for anything but a list of texts.
RawValue listOf(const toml::array& array) {
  std::vector<std::string> list;
  for (const toml::node& element : array) {
    const auto* text = element.as_string();
    if (text == nullptr) {
      return {};
    }
    list.push_back(text->get());
  }
  return list;
}

RawValue valueOf(const toml::node& node) {
  if (const auto* text = node.as_string()) {
    return text->get();
  }
  if (const auto* whole = node.as_integer()) {
    return whole->get();
  }
  if (const auto* number = node.as_floating_point()) {
    return number->get();
  }
  const toml::array* array = node.as_array();
  return array == nullptr ? RawValue() : listOf(*array);
}

std::vector<TomlEntry> entriesOf(const toml::table& file) {
  std::vector<TomlEntry> entries;
  for (auto&& [name, node] : file) {
    const toml::table* section = node.as_table();
    if (section == nullptr) {
      entries.push_back({lineOf(name.source()), "", std::string(name.str()), valueOf(node), ""});
      continue;
    }
    if (section->empty()) {  // its name must be known too
      entries.push_back({lineOf(name.source()), std::string(name.str()), "", {}, ""});
    }
    for (auto&& [key, value] : *section) {
      entries.push_back({lineOf(key.source()), std::string(name.str()), std::string(key.str()),
                         valueOf(value), ""});
    }
  }
  std::stable_sort(
      entries.begin(), entries.end(),
      [](const TomlEntry& one, const TomlEntry& other) { return one.line < other.line; });
  return entries;
}

}  // namespace

std::vector<TomlEntry> readToml(std::string_view text) {
  // The behaviour of the library is undefined for some of these characters.
  if (const std::optional<int> line = zell::lineOfStrayCharacter(text)) {
    return {problemAt(*line, "expected ASCII characters outside of strings and comments")};
  }
  try {
    return entriesOf(toml::parse(text));
  } catch (const toml::parse_error& error) {
    return {problemAt(lineOf(error.source()), std::string(error.description()))};
  }
}

}  // namespace runelgw
