// SPDX-License-Identifier: Apache-2.0
// The example has each setting with its default, and so have the documents.
#include <fstream>
#include <iterator>
#include <regex>
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

}  // namespace
}  // namespace runelgw
