// SPDX-License-Identifier: Apache-2.0
// The example has each setting with its default, and so have the documents.
#include <fstream>
#include <iterator>
#include <regex>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "gateway/config/settings_loader.h"
#include "gateway/config/settings_table.h"
#include "gateway/config/write_settings.h"

namespace runelgw {
namespace {

std::string contentOf(const std::string& path) {
  std::ifstream file(RUNELD_SOURCE "/" + path);
  return {std::istreambuf_iterator<char>(file), {}};
}

const char kExample[] = "packaging/runelgw/runelgw.toml";

TEST(SettingsDocumentsTest, ExampleIsWhatTheProgramWrites) {
  EXPECT_TRUE(contentOf(kExample) == exampleFile())
      << "runelgw check-config --example >" << kExample;
}

TEST(SettingsDocumentsTest, ExampleHasEachKeyWithItsDefault) {
  const std::string text = contentOf(kExample);
  for (const SettingRow& row : settingRows()) {
    EXPECT_NE(text.find("\n#" + std::string(row.key) + " = "), std::string::npos) << row.name();
  }
  SettingsLoader asItIs;
  asItIs.readText(text, kExample);
  EXPECT_TRUE(asItIs.problems().empty()) << asItIs.problems().front();

  SettingsLoader all;
  all.readText(std::regex_replace(text, std::regex("\n#([a-z_]+ = )"), "\n$1"), kExample);
  all.compare();
  EXPECT_TRUE(all.problems().empty()) << all.problems().front();
  EXPECT_EQ(settingsText(all.settings()), settingsText({}));
}

// The part of @p path between the lines @p begin and @p end.
std::string partOf(const std::string& path, const std::string& begin, const std::string& end) {
  const std::string text = contentOf(path);
  const std::size_t from = text.find(begin + "\n");
  const std::size_t to = text.find(end + "\n");
  if (from == std::string::npos || to == std::string::npos) {
    return "no such part";
  }
  return text.substr(from + begin.size() + 1, to - from - begin.size() - 1);
}

// Each sentence begins on a new line, so that the manual's formatter sets the right spaces. Its
// checker wants lines of at most 80 bytes.
std::string manualText(const std::string& text) {
  constexpr std::size_t kWidth = 80;
  std::string lines;
  std::string line;
  std::istringstream words(text);
  for (std::string word; words >> word;) {
    const bool startsLine = line.empty() || line.back() == '.';
    if (!line.empty() && (startsLine || line.size() + 1 + word.size() > kWidth)) {
      lines += line + "\n";
      line.clear();
    }
    line += (line.empty() ? "" : " ") + word;
  }
  return lines + line + "\n";
}

TEST(SettingsDocumentsTest, ManualHasEachKeyWithItsDefaultAndMeaning) {
  Settings defaults;
  std::string expected;
  for (const SettingSection& section : settingSections()) {
    expected += ".Ss Section " + std::string(section.name) + "\n" + std::string(section.meaning) +
                ".\n.Bl -tag -width Ds\n";
    for (const SettingRow& row : settingRows()) {
      if (row.section == section.name) {
        expected += ".It Cm " + std::string(row.key) + " No = Li " + row.place(defaults).show() +
                    "\n" + manualText(std::string(row.meaning));
      }
    }
    expected += ".El\n";
  }
  const std::string found = partOf("man/runelgw.8", ".\\\" BEGIN SETTINGS", ".\\\" END SETTINGS");
  EXPECT_TRUE(found == expected) << "expected:\n" << expected;
}

TEST(SettingsDocumentsTest, DocumentHasEachKeyWithItsDefaultAndMeaning) {
  Settings defaults;
  std::string expected = "| key | default | meaning |\n|---|---|---|\n";
  for (const SettingRow& row : settingRows()) {
    expected += "| `" + row.name() + "` | `" + row.place(defaults).show() + "` | " +
                std::string(row.meaning) + " |\n";
  }
  const std::string found =
      partOf("docs/gateway.md", "<!-- BEGIN SETTINGS -->", "<!-- END SETTINGS -->");
  EXPECT_TRUE(found == expected) << "expected:\n" << expected;
}

}  // namespace
}  // namespace runelgw
