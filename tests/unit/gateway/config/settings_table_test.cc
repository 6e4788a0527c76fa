// SPDX-License-Identifier: Apache-2.0
// The table of settings: each row sets one value.
#include "gateway/config/settings_table.h"

#include <map>
#include <set>
#include <string>

#include <gtest/gtest.h>

#include "gateway/config/settings_loader.h"
#include "gateway/config/write_settings.h"

namespace runelgw {
namespace {

// A value of each key that is not its default, as the text of its option, and as TOML.
const std::map<std::string, std::pair<std::string, std::string>> kOthers = {
    {"devices.listen", {"192.0.2.1:5112,127.0.0.1:7", R"(["192.0.2.1:5112", "127.0.0.1:7"])"}},
    {"devices.proxies", {"192.0.2.1,10.0.0.0/8", R"(["192.0.2.1", "10.0.0.0/8"])"}},
    {"devices.shared_addresses", {"192.0.2.0/24", R"(["192.0.2.0/24"])"}},
    {"devices.shared_silence_seconds", {"90", "90"}},
    {"devices.caution_seconds", {"0.5", "0.5"}},
    {"devices.identify_per_second", {"5", "5"}},
    {"devices.answer_timeout_seconds", {"2.25", "2.25"}},
    {"admission.mode", {"approve", R"("approve")"}},
    {"admission.pin", {"nothing", R"("nothing")"}},
    {"admission.allow", {"gw-1,192.0.2.9", R"(["gw-1", "192.0.2.9"])"}},
    {"admission.deny", {"\"odd\"", R"(["\"odd\""])"}},
    {"queue.length", {"2", "2"}},
    {"queue.spool_directory", {"/tmp/sp ool", R"("/tmp/sp ool")"}},
    {"queue.spool_bytes", {"0", "0"}},
    {"inventory.interval_seconds", {"60", "60"}},
    {"http.listen", {"[::1]:8443", R"(["[::1]:8443"])"}},
    {"http.certificate", {"/c.pem", R"("/c.pem")"}},
    {"http.key", {"/k.pem", R"("/k.pem")"}},
    {"http.client_ca", {"/ca.pem", R"("/ca.pem")"}},
    {"http.host_names", {"gw.example,192.0.2.1", R"(["gw.example", "192.0.2.1"])"}},
    {"http.max_connections", {"7", "7"}},
    {"http.body_bytes", {"65536", "65536"}},
    {"http.header_timeout_seconds", {"3", "3"}},
    {"http.idle_timeout_seconds", {"4", "4"}},
    {"http.session_hours", {"1.5", "1.5"}},
    {"http.requests_per_second", {"0.25", "0.25"}},
    {"http.request_burst", {"9", "9"}},
    {"database.url", {"postgresql://h/fleet", R"("postgresql://h/fleet")"}},
    {"database.readers", {"2", "2"}},
    {"retention.history_days", {"1", "1"}},
    {"retention.audit_days", {"2", "2"}},
    {"retention.clause_hours", {"3", "3"}},
    {"retention.output_days", {"4", "4"}},
    {"service.state_directory", {"/state", R"("/state")"}},
    {"service.control_socket", {"/socket", R"("/socket")"}},
    {"service.log_level", {"debug", R"("debug")"}},
};

std::string shown(const SettingRow& row, Settings settings) {
  return row.place(settings).show();
}

TEST(SettingsTableTest, SetsThePlaceOfItsRowAndNoOther) {
  ASSERT_EQ(kOthers.size(), settingRows().size());
  for (const SettingRow& row : settingRows()) {
    const auto& [option, toml] = kOthers.at(row.name());
    SettingsLoader loader;
    loader.readOption(row, option);
    EXPECT_TRUE(loader.problems().empty()) << loader.problems().front();
    for (const SettingRow& other : settingRows()) {
      const bool same = other.name() == row.name();
      EXPECT_EQ(shown(other, loader.settings()), same ? toml : shown(other, {})) << other.name();
    }
    EXPECT_NE(toml, shown(row, {})) << row.name();
  }
}

TEST(SettingsTableTest, ReadsWhatItWrites) {
  SettingsLoader options;
  for (const SettingRow& row : settingRows()) {
    options.readOption(row, kOthers.at(row.name()).first);
  }
  SettingsLoader file;
  file.readText(settingsText(options.settings()), "f");
  EXPECT_TRUE(file.problems().empty()) << file.problems().front();
  EXPECT_EQ(settingsText(file.settings()), settingsText(options.settings()));
  EXPECT_NE(settingsText(file.settings()), settingsText({}));
}

TEST(SettingsTableTest, HasOneRowForEachNameAndOption) {
  std::set<std::string> names;
  std::set<std::string> sections;
  for (const SettingSection& section : settingSections()) {
    sections.emplace(section.name);
  }
  for (const SettingRow& row : settingRows()) {
    EXPECT_TRUE(names.insert(row.option()).second) << row.name();
    EXPECT_TRUE(sections.count(std::string(row.section)) == 1) << row.name();
    EXPECT_EQ(row.meaning.back(), '.') << row.name();
  }
}

TEST(SettingsTableTest, HidesThePasswordOfTheDatabase) {
  EXPECT_EQ(withoutPassword("/var/lib/runelgw/fleet.db"), "/var/lib/runelgw/fleet.db");
  EXPECT_EQ(withoutPassword("postgresql://u:s@h/n"), "postgresql://u:***@h/n");
  EXPECT_EQ(withoutPassword("postgresql://u@h:5432/n"), "postgresql://u@h:5432/n");
  EXPECT_EQ(withoutPassword("postgresql://h:5432/n"), "postgresql://h:5432/n");
  EXPECT_EQ(withoutPassword("postgresql://u:s@h"), "postgresql://u:***@h");
  EXPECT_EQ(withoutPassword("postgresql://u:s:t@h/n"), "postgresql://u:***@h/n");
  EXPECT_EQ(withoutPassword("postgresql://h/n?password=s&x=1"),
            "postgresql://h/n?password=***&x=1");
  Settings settings;
  settings.database.url = "postgresql://u:secret@h/n";
  EXPECT_EQ(settingsText(settings).find("secret"), std::string::npos);
}

}  // namespace
}  // namespace runelgw
