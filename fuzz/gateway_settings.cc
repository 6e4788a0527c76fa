// SPDX-License-Identifier: Apache-2.0
// Files and options with the settings of the gateway: what is accepted can be written and read
// again, and what is refused leaves the defaults. An even first byte selects a file, an odd one the
// option that the second byte names.
#include <string>

#include "fuzz.h"
#include "gateway/config/settings_loader.h"
#include "gateway/config/settings_table.h"
#include "gateway/config/write_settings.h"

namespace {

using runelgw::Settings;
using runelgw::SettingsLoader;
using zell::fuzz::require;

void checkWritten(const Settings& settings) {
  const std::string text = runelgw::settingsText(settings);
  SettingsLoader again;
  again.readText(text, "f");
  require(again.problems().empty());
  require(runelgw::settingsText(again.settings()) == text);
}

void tryFile(const std::string& text) {
  SettingsLoader loader;
  loader.readText(text, "f");
  for (const std::string& problem : loader.problems()) {
    require(problem.rfind("f:", 0) == 0 && problem.size() > sizeof "f:1: ");
  }
  loader.compare();
  checkWritten(loader.settings());
  SettingsLoader again;
  again.readText(text, "f");
  again.compare();
  require(again.problems() == loader.problems());
}

void tryOption(unsigned number, const std::string& value) {
  const auto& rows = runelgw::settingRows();
  const runelgw::SettingRow& row = rows[number % rows.size()];
  SettingsLoader loader;
  loader.readOption(row, value);
  checkWritten(loader.settings());
  require(loader.problems().empty() ||
          runelgw::settingsText(loader.settings()) == runelgw::settingsText({}));
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto [choice, input] = zell::fuzz::firstByteChooses(data, size);
  if (choice % 2 == 0) {
    tryFile(input);
  } else if (!input.empty()) {
    tryOption(static_cast<unsigned char>(input.front()), input.substr(1));
  }
  return 0;
}
