// SPDX-License-Identifier: Apache-2.0
// The command tables for completion, which are read from the definition of the command line.
#include <algorithm>
#include <cstdint>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "cli/command_line.h"
#include "cli/tables.h"
#include "shell/completion.h"

namespace runelctl {
namespace {

using Words = std::vector<std::string>;

class TablesTest : public ::testing::Test {
 protected:
  CommandLine line;
  const Tables tables = readTables(line.app());
};

TEST_F(TablesTest, HasEachCommandOnceWithHelp) {
  std::set<std::string> names;
  for (const CommandRow& row : tables.commands) {
    EXPECT_TRUE(names.insert(row.name).second) << row.name;
    EXPECT_NE(row.help, "") << row.name;
  }
  for (const char* name : {"push", "exec", "reboot", "walktree", "master", "shell", "completion"}) {
    EXPECT_EQ(names.count(name), 1U) << name;
  }
}

TEST_F(TablesTest, EachOptionHasNamesWithDashesAndHelp) {
  std::vector<OptionRow> all = tables.options;
  for (const CommandRow& row : tables.commands) {
    all.insert(all.end(), row.options.begin(), row.options.end());
  }
  for (const OptionRow& row : all) {
    ASSERT_FALSE(row.names.empty());
    EXPECT_NE(row.help, "") << row.names[0];
    for (const std::string& name : row.names) {
      EXPECT_EQ(name[0], '-') << name;
    }
  }
}

TEST_F(TablesTest, OptionsHaveTheKindOfTheirValue) {
  EXPECT_EQ(tables.option(nullptr, "--json")->value, Value::none);
  EXPECT_EQ(tables.option(nullptr, "-d")->value, Value::device);
  EXPECT_EQ(tables.option(nullptr, "--devices")->value, Value::file);
  EXPECT_EQ(tables.option(nullptr, "--output-dir")->value, Value::file);
  EXPECT_EQ(tables.option(nullptr, "--jobs")->value, Value::any);
  const OptionRow& colour = *tables.option(nullptr, "--color");
  EXPECT_EQ(colour.value, Value::oneOf);
  EXPECT_EQ(std::set<std::string>(colour.words.begin(), colour.words.end()),
            (std::set<std::string>{"always", "auto", "never"}));
}

TEST_F(TablesTest, ArgumentsAreLocalOrRemote) {
  EXPECT_EQ(tables.command("cat")->arguments.back().value, Value::remote);
  EXPECT_EQ(tables.command("sync")->arguments.front().value, Value::file);
  EXPECT_EQ(tables.command("sync")->arguments.back().value, Value::remote);
  EXPECT_EQ(tables.command("exec")->arguments.front().value, Value::programs);
  EXPECT_EQ(tables.command("completion")->arguments.front().words.size(), 3U);
  EXPECT_TRUE(tables.command("hostid")->arguments.empty());
}

TEST_F(TablesTest, ACommandOptionHidesTheGeneralOption) {
  const CommandRow* exec = tables.command("exec");
  EXPECT_NE(tables.option(exec, "--timeout"), tables.option(nullptr, "--timeout"));
  EXPECT_EQ(tables.option(exec, "--json"), tables.option(nullptr, "--json"));
  EXPECT_EQ(tables.option(exec, "--no-such"), nullptr);
  EXPECT_EQ(tables.command("no-such"), nullptr);
}

TEST_F(TablesTest, EachScriptContainsAllCommandsAndOptions) {
  for (const std::string& script :
       {bashCompletion(tables), zshCompletion(tables), fishCompletion(tables)}) {
    for (const CommandRow& row : tables.commands) {
      EXPECT_NE(script.find(row.name), std::string::npos) << row.name;
      for (const OptionRow& option : row.options) {
        for (const std::string& name : option.names) {
          EXPECT_NE(script.find(name.substr(name.find_first_not_of('-'))), std::string::npos)
              << name;
        }
      }
    }
  }
}

// Parsing of command lines.
int parse(Words words) {
  CommandLine typed;
  return typed.parse(std::move(words));
}

TEST(CommandLineTest, OptionsMayPrecedeOrFollowTheCommand) {
  for (const Words& words :
       {Words{"--json", "-j", "3", "hostid"}, Words{"hostid", "--json", "-j3"}}) {
    CommandLine typed;
    ASSERT_EQ(typed.parse(words), -1);
    EXPECT_TRUE(typed.settings().json);
    EXPECT_EQ(typed.settings().jobs, 3);
    EXPECT_TRUE(typed.settings().jobsGiven);
    EXPECT_EQ(typed.command()->name(), "hostid");
  }
}

TEST(CommandLineTest, AMemorySizeMayHaveAUnit) {
  const std::pair<const char*, std::uint64_t> kSizes[] = {
      {"16777216", 16777216}, {"512M", 536870912}, {"2g", 2147483648}, {"64MiB", 67108864}};
  for (const auto& [text, bytes] : kSizes) {
    CommandLine typed;
    ASSERT_EQ(typed.parse({"--memory", text, "hostid"}), -1) << text;
    EXPECT_EQ(typed.settings().memory, bytes);
    EXPECT_NE(typed.settings().spool, nullptr);
  }
  CommandLine plain;
  EXPECT_EQ(plain.settings().memory, 268435456U);
}

TEST(CommandLineTest, InvalidCommandLinesAreUsageErrors) {
  for (const Words& words :
       {Words{}, Words{"no-such"}, Words{"hostid", "--no-such"}, Words{"--wave", "x", "hostid"},
        Words{"-j", "0", "hostid"}, Words{"--retry", "-1", "hostid"}, Words{"access", "/"},
        Words{"--retry-unsafe", "hostid"}, Words{"--deadline", "-1", "hostid"},
        Words{"--memory", "15M", "hostid"}, Words{"--memory", "1x", "hostid"},
        Words{"--memory", "-1", "hostid"}}) {
    EXPECT_EQ(parse(words), 2);
  }
}

TEST(CommandLineTest, TheTimeoutIsTheLimitOfAProgramBeforeAndBehindTheCommand) {
  for (const Words& words :
       {Words{"--timeout", "7", "exec", "true"}, Words{"exec", "--timeout", "7", "true"},
        Words{"--timeout", "7", "sh", "true"},
        Words{"--timeout", "9", "sh", "--timeout", "7", "true"}}) {
    CommandLine typed;
    ASSERT_EQ(typed.parse(words), -1);
    EXPECT_EQ(typed.command()->programLimit(typed.settings()), 7);
    EXPECT_EQ(typed.settings().ioTimeout, 30);
  }
  CommandLine without;
  ASSERT_EQ(without.parse({"sh", "true"}), -1);
  EXPECT_EQ(without.command()->programLimit(without.settings()), 0);
}

TEST(CommandLineTest, TheTimeoutIsRefusedWithoutAProgram) {
  for (const Words& words : {Words{"--timeout", "7", "hostid"}, Words{"--timeout", "7", "devices"},
                             Words{"--timeout", "7", "push", "a", "/b"},
                             Words{"--timeout", "7", "exec", "--background", "true"}}) {
    EXPECT_EQ(parse(words), 2);
  }
  EXPECT_EQ(parse({"--timeout", "7", "shell"}), -1);
}

TEST(CommandLineTest, TheDefaultTargetIsTheLocalHost) {
  CommandLine plain;
  ASSERT_EQ(plain.parse({"hostid"}), -1);
  ASSERT_EQ(plain.readTargets(), "");
  ASSERT_EQ(plain.settings().targets.size(), 1U);
  EXPECT_EQ(plain.settings().targets[0].host(), "127.0.0.1");
  CommandLine several;
  ASSERT_EQ(several.parse({"-d", "a,b", "--device", "@c", "hostid"}), -1);
  ASSERT_EQ(several.readTargets(), "");
  EXPECT_EQ(several.settings().targets.size(), 3U);
}

}  // namespace
}  // namespace runelctl
