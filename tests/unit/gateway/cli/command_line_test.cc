// SPDX-License-Identifier: Apache-2.0
// The command line of the gateway.
#include "gateway/cli/command_line.h"

#include <map>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace runelgw {
namespace {

using Command = CommandLine::Command;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Pair;

Parsed parse(std::vector<const char*> words) {
  words.insert(words.begin(), "runelgw");
  return parseCommandLine(static_cast<int>(words.size()), words.data());
}

TEST(GatewayCommandLineTest, KnowsEachCommand) {
  EXPECT_EQ(parse({"run"}).line->command, Command::run);
  EXPECT_EQ(parse({"check-config"}).line->command, Command::checkConfig);
  EXPECT_EQ(parse({"token", "list"}).line->command, Command::tokenList);
  EXPECT_EQ(parse({"token", "revoke", "ci"}).line->command, Command::tokenRevoke);
  EXPECT_EQ(parse({"backup", "f"}).line->command, Command::backup);
  EXPECT_EQ(parse({"restore", "f"}).line->command, Command::restore);
  EXPECT_EQ(parse({"orderly-end"}).line->command, Command::orderlyEnd);
}

TEST(GatewayCommandLineTest, ReadsTheWishForAToken) {
  const auto line = parse({"token", "create", "--name", "ci", "--role", "operator", "--group", "a",
                           "--group", "b", "--kinds", "look,read", "--expires", "2w"})
                        .line;
  ASSERT_TRUE(line);
  EXPECT_EQ(line->command, Command::tokenCreate);
  EXPECT_EQ(line->name, "ci");
  EXPECT_EQ(line->role, "operator");
  EXPECT_THAT(line->groups, ElementsAre("a", "b"));
  EXPECT_THAT(line->kinds, ElementsAre("look", "read"));
  EXPECT_EQ(line->lifetime, 14LL * 86400 * 1000);
}

TEST(GatewayCommandLineTest, TakesSettingsBeforeAndAfterTheCommand) {
  const auto line =
      parse({"--queue-length", "3", "run", "-c", "f", "--devices-listen=127.0.0.1:1"}).line;
  ASSERT_TRUE(line);
  EXPECT_EQ(line->configFile, "f");
  std::map<std::string, std::string> given;
  for (const auto& [row, value] : line->settings) {
    given[row->name()] = value;
  }
  EXPECT_THAT(given, ElementsAre(Pair("devices.listen", "127.0.0.1:1"), Pair("queue.length", "3")));
}

TEST(GatewayCommandLineTest, HasAnOptionForEachSetting) {
  for (const SettingRow& row : settingRows()) {
    const auto line = parse({"run", row.option().c_str(), "x,y"}).line;
    ASSERT_TRUE(line) << row.option();
    ASSERT_EQ(line->settings.size(), 1U) << row.option();
    EXPECT_EQ(line->settings[0].first, &row);
    EXPECT_EQ(line->settings[0].second, "x,y");
  }
}

TEST(GatewayCommandLineTest, TellsWhatIsWrong) {
  EXPECT_THAT(parse({}).error, HasSubstr("A subcommand is required"));
  EXPECT_THAT(parse({"runn"}).error, HasSubstr("unknown argument 'runn' (did you mean 'run'?)"));
  EXPECT_THAT(parse({"run", "--queue-lenght", "3"}).error,
              HasSubstr("'--queue-lenght' (did you mean '--queue-length'?)"));
  EXPECT_THAT(parse({"token"}).error, HasSubstr("A subcommand is required"));
  EXPECT_THAT(parse({"token", "create", "--name", "x"}).error, HasSubstr("--role is required"));
  EXPECT_THAT(parse({"token", "create", "--name", "x", "--role", "boss"}).error,
              HasSubstr("--role: boss not in {viewer,operator,admin}"));
  EXPECT_THAT(
      parse({"token", "create", "--name", "x", "--role", "viewer", "--expires", "soon"}).error,
      HasSubstr("--expires: expected a time such as 90d or 12h"));
  EXPECT_EQ(parse({"backup"}).status, 2);
}

TEST(GatewayCommandLineTest, PrintsHelpAndVersion) {
  const Parsed help = parse({"--help"});
  EXPECT_EQ(help.status, 0);
  EXPECT_THAT(help.output, HasSubstr("check-config"));
  EXPECT_THAT(help.output, HasSubstr("--queue-length NUMBER"));
  EXPECT_THAT(parse({"token", "create", "--help"}).output, HasSubstr("--expires TIME"));
  EXPECT_THAT(parse({"--version"}).output, HasSubstr("runelgw "));
}

TEST(GatewayCommandLineTest, ReadsTimes) {
  EXPECT_EQ(parseLifetime("45s"), 45000);
  EXPECT_EQ(parseLifetime("30m"), 1800000);
  EXPECT_EQ(parseLifetime("12h"), 43200000);
  EXPECT_EQ(parseLifetime("90d"), 7776000000);
  EXPECT_EQ(parseLifetime("2w"), 1209600000);
  for (const char* text : {"", "d", "90", "1.5d", "-1d", "1y", "1dd", "1234567890d", "0x1d"}) {
    EXPECT_FALSE(parseLifetime(text)) << text;
  }
}

}  // namespace
}  // namespace runelgw
