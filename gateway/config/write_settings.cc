// SPDX-License-Identifier: Apache-2.0
#include "gateway/config/write_settings.h"

#include <algorithm>
#include <cstddef>
#include <functional>
#include <string_view>

#include "gateway/config/settings_table.h"

namespace runelgw {
namespace {

constexpr std::size_t kWidth = 100;

// In two parts: what checks licences would read a whole line as the licence of this file.
constexpr char kStart[] =
    "# SPDX-License-"
    "Identifier: Apache-2.0\n"
    "# Settings of runelgw. Each line that begins with '#' and a key shows a default: remove the "
    "'#'\n"
    "# to change it. \"runelgw check-config\" checks this file. Each key is an option of the "
    "program\n"
    "# too: \"queue.length\" is --queue-length.\n";

// Comment lines of at most kWidth bytes.
std::string comment(std::string_view text) {
  std::string lines;
  std::string line = "#";
  while (!text.empty()) {
    const std::string_view word = text.substr(0, text.find(' '));
    if (line.size() + 1 + word.size() > kWidth) {
      lines += line + "\n";
      line = "#";
    }
    line += " " + std::string(word);
    text.remove_prefix(std::min(word.size() + 1, text.size()));
  }
  return lines + line + "\n";
}

using RowText = std::function<std::string(const SettingRow& row)>;

std::string sections(const RowText& rowText) {
  std::string text;
  for (const SettingSection& section : settingSections()) {
    text += "\n" + comment(std::string(section.meaning) + ".") + "[" + std::string(section.name) +
            "]\n";
    for (const SettingRow& row : settingRows()) {
      text += row.section == section.name ? rowText(row) : "";
    }
  }
  return text;
}

std::string line(const SettingRow& row, Settings& settings) {
  return std::string(row.key) + " = " + row.place(settings).show() + "\n";
}

}  // namespace

std::string exampleFile() {
  Settings defaults;
  return kStart + sections([&defaults](const SettingRow& row) {
           return "\n" + comment(row.meaning) + "#" + line(row, defaults);
         });
}

std::string settingsText(Settings settings) {
  settings.database.url = withoutPassword(settings.database.url);
  return sections([&settings](const SettingRow& row) { return line(row, settings); }).substr(1);
}

std::string withoutPassword(const std::string& url) {
  constexpr std::string_view kSeparator = "://";
  constexpr std::string_view kParameter = "password=";
  std::string shown = url;
  const std::size_t parameter = shown.find(kParameter);
  if (parameter != std::string::npos) {
    const std::size_t begin = parameter + kParameter.size();
    shown.replace(begin, std::min(shown.find('&', begin), shown.size()) - begin, "***");
  }
  const std::size_t scheme = shown.find(kSeparator);
  if (scheme == std::string::npos) {
    return shown;
  }
  const std::size_t user = scheme + kSeparator.size();
  const std::size_t at = shown.rfind('@', shown.find('/', user));
  const std::size_t colon = shown.find(':', user);
  if (at != std::string::npos && colon < at) {
    shown.replace(colon + 1, at - colon - 1, "***");
  }
  return shown;
}

}  // namespace runelgw
