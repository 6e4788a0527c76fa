// SPDX-License-Identifier: Apache-2.0
// The command tables for completion, which are read from the definition of the command line.
#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "cli/command_line.h"
#include "cli/tables.h"
#include "shell/completion.h"
#include "support/temp_dir.h"

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
  EXPECT_EQ(names.count("complete"), 0U) << "only for scripts";
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
  EXPECT_EQ(tables.option(nullptr, "-x")->value, Value::device);
  EXPECT_EQ(tables.option(nullptr, "-g")->value, Value::group);
  EXPECT_EQ(tables.option(nullptr, "--devices")->value, Value::file);
  EXPECT_EQ(tables.option(nullptr, "--output-dir")->value, Value::file);
  EXPECT_EQ(tables.option(nullptr, "--jobs")->value, Value::any);
  const OptionRow& colour = *tables.option(nullptr, "--color");
  EXPECT_EQ(colour.value, Value::oneOf);
  EXPECT_EQ(std::set<std::string>(colour.words.begin(), colour.words.end()),
            (std::set<std::string>{"always", "auto", "never"}));
}

TEST_F(TablesTest, PushAndSyncCompressAndSendDifferences) {
  for (const char* command : {"push", "sync"}) {
    for (const char* option : {"-z", "--no-compress", "--delta", "--no-delta"}) {
      EXPECT_NE(tables.option(tables.command(command), option), nullptr) << command << option;
    }
  }
}

TEST_F(TablesTest, TheHelpNamesTheLimitsOfARestart) {
  const auto help = [this](const char* command, const char* option) {
    return tables.option(tables.command(command), option)->help;
  };
  EXPECT_EQ(help("reboot", "--down-timeout"), "limit for going down (default: 60)");
  EXPECT_EQ(help("reboot", "--up-timeout"), "limit for coming back (default: 300)");
  EXPECT_EQ(help("restart", "--down-timeout"), "limit for going down (default: 30)");
  EXPECT_EQ(help("restart", "--up-timeout"), "limit for coming back (default: 60)");
}

TEST_F(TablesTest, AJobHasItsOwnTimeLimit) {
  const OptionRow* limit = tables.option(tables.command("job")->subcommand("start"), "--timeout");
  EXPECT_EQ(limit->help, "limit for the program (default: none)");
  EXPECT_NE(limit, tables.option(nullptr, "--timeout"));
}

TEST_F(TablesTest, ArgumentsAreLocalOrRemote) {
  EXPECT_EQ(tables.command("cat")->arguments.back().value, Value::remote);
  EXPECT_EQ(tables.command("sync")->arguments.front().value, Value::file);
  EXPECT_EQ(tables.command("sync")->arguments.back().value, Value::remote);
  EXPECT_EQ(tables.command("exec")->arguments.front().value, Value::programs);
  EXPECT_EQ(tables.command("completion")->arguments.front().words.size(), 3U);
  EXPECT_EQ(tables.command("push")->arguments.front().value, Value::file);
  EXPECT_EQ(tables.command("push")->arguments.back().value, Value::fileOrRemote);
  EXPECT_EQ(tables.command("pull")->arguments.front().value, Value::remote);
  EXPECT_EQ(tables.command("pull")->arguments.back().value, Value::fileOrRemote);
  EXPECT_EQ(tables.command("blinkleds")->arguments.front().words,
            (Words{"off", "on", "slow", "fast", "alternate"}));
  EXPECT_TRUE(tables.command("hostid")->arguments.empty());
}

TEST_F(TablesTest, SubcommandsHaveTheirOwnOptions) {
  const CommandRow* job = tables.command("job");
  ASSERT_NE(job, nullptr);
  EXPECT_EQ(job->commands.size(), 7U);
  const CommandRow* start = job->subcommand("start");
  ASSERT_NE(start, nullptr);
  EXPECT_NE(tables.option(start, "--id"), nullptr);
  EXPECT_EQ(tables.option(job->subcommand("list"), "--id"), nullptr);
  EXPECT_EQ(start->arguments.front().value, Value::programs);
  EXPECT_EQ(job->subcommand("no-such"), nullptr);
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

TEST(CommandLineTest, NothingFollowsTheLineOfSh) {
  EXPECT_EQ(parse({"sh", "--timeout", "3", "ls"}), -1);
  EXPECT_EQ(parse({"sh", "ls", "--timeout", "3"}), 2);
}

TEST(CommandLineTest, AttachingToAJobHasNoDeadline) {
  CommandLine typed;
  ASSERT_EQ(typed.parse({"job", "attach", "x1"}), -1);
  EXPECT_TRUE(typed.command()->transfers());
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

TEST(CommandLineTest, ASubcommandTakesGeneralOptionsAndNamesTheTask) {
  for (const Words& words :
       {Words{"--json", "job", "stop", "--grace", "1", "x"}, Words{"job", "stop", "x", "--json"}}) {
    CommandLine typed;
    ASSERT_EQ(typed.parse(words), -1);
    EXPECT_TRUE(typed.settings().json);
    EXPECT_EQ(typed.command()->task(), "job stop");
  }
  EXPECT_EQ(parse({"job"}), 2);
  EXPECT_EQ(parse({"job", "no-such"}), 2);
  EXPECT_EQ(parse({"job", "wait", "../x"}), 2);
  EXPECT_EQ(parse({"exec", "--stdin", "true"}), 2) << "without --stream";
  EXPECT_EQ(parse({"exec", "--stream", "--background", "true"}), 2);
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

TEST(CommandLineTest, ADryRunOfATransferIsAPlan) {
  CommandLine plan;
  ASSERT_EQ(plan.parse({"-n", "pull", "/a", "b"}), -1);
  EXPECT_TRUE(plan.settings().plan && !plan.settings().dryRun);
  for (const Words& words :
       {Words{"-n", "--offline", "pull", "/a", "b"}, Words{"-n", "rm", "/a"}}) {
    CommandLine dry;
    ASSERT_EQ(dry.parse(words), -1);
    EXPECT_TRUE(dry.settings().dryRun && !dry.settings().plan);
  }
  EXPECT_EQ(parse({"--offline", "pull", "/a", "b"}), 2);
}

TEST(CommandLineTest, InvalidExcludesAreUsageErrors) {
  EXPECT_EQ(parse({"pull", "--exclude", "*.o", "--exclude", "[ab]", "/a", "b"}), -1);
  EXPECT_EQ(parse({"pull", "--exclude", "!", "/a", "b"}), 2);
  EXPECT_EQ(parse({"pull", "--exclude-from", "/dev/null", "/a", "b"}), -1);
  EXPECT_EQ(parse({"pull", "--exclude-from", "/", "/a", "b"}), 2);
  EXPECT_EQ(parse({"pull", "--exclude-from", "/dev/zero", "/a", "b"}), 2);
}

// The devices of a command line, in an environment without an inventory.
class TargetsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("XDG_CONFIG_HOME", dir.path().c_str(), 1);
    unsetenv("RUNELCTL_DEVICE");
  }
  void TearDown() override {
    unsetenv("XDG_CONFIG_HOME");
    unsetenv("RUNELCTL_DEVICE");
  }

  Words targets(const Words& words) {
    CommandLine typed(base);
    EXPECT_EQ(typed.parse(words), -1);
    const auto read = typed.readTargets();
    EXPECT_TRUE(read.ok());
    settings = typed.settings();
    Words names;
    for (const runel::Address& target : settings.targets) {
      names.push_back(target.name());
    }
    return names;
  }
  void writeInventory(const std::string& text) {
    std::filesystem::create_directories(dir.file("runelctl"));
    dir.write("runelctl/devices.toml", text);
  }

  zell::test::TempDir dir;
  Settings base;
  Settings settings;
};

TEST_F(TargetsTest, TheDefaultIsTheEnvironmentOrTheLocalHost) {
  EXPECT_EQ(targets({"hostid"}), (Words{"127.0.0.1"}));
  setenv("RUNELCTL_DEVICE", "a,b:1", 1);
  EXPECT_EQ(targets({"hostid"}), (Words{"a", "b:1"}));
  setenv("RUNELCTL_DEVICE", "", 1);
  EXPECT_EQ(targets({"hostid"}), (Words{"127.0.0.1"}));
}

TEST_F(TargetsTest, TheEnvironmentIsIgnoredIfTheCommandLineNamesDevices) {
  setenv("RUNELCTL_DEVICE", "surprise", 1);
  const std::string list = dir.write("list", "one\n");
  writeInventory("[devices]\nhall = { tags = { site = \"north\" } }\n[groups]\ng = [\"hall\"]\n");
  EXPECT_EQ(targets({"-d", "a,b", "--device", "@c", "hostid"}), (Words{"a", "b", "@c"}));
  EXPECT_EQ(targets({"--devices", list, "hostid"}), (Words{"one"}));
  EXPECT_EQ(targets({"-a", "hostid"}), (Words{"hall"}));
  EXPECT_EQ(targets({"-g", "g", "hostid"}), (Words{"hall"}));
  EXPECT_EQ(targets({"--tag", "site=north", "hostid"}), (Words{"hall"}));
}

TEST_F(TargetsTest, ADeviceThatIsNamedTwiceIsServedOnce) {
  const std::string list = dir.write("list", "b\nfirst a\nB:5111\n");
  EXPECT_EQ(targets({"-d", "a,a:5111", "-d", "a", "--devices", list, "hostid"}), (Words{"a", "b"}));
}

TEST_F(TargetsTest, DefaultsOfTheInventoryApplyUnlessTheCommandLineSetsThem) {
  writeInventory(
      "[defaults]\njobs = 5\nwave = \"1,rest\"\n[devices]\n"
      "slow = { connect-timeout = 60, deadline = 90 }\nfast = {}\n");
  (void)targets({"-a", "hostid"});
  EXPECT_EQ(settings.jobs, 5);
  EXPECT_EQ(settings.wave, "1,rest");
  EXPECT_EQ(settings.limits(settings.targets[0]).connectTimeout(), std::chrono::seconds(60));
  EXPECT_EQ(settings.limits(settings.targets[1]).connectTimeout(), std::chrono::seconds(10));
  (void)targets({"-a", "-j", "7", "--wave", "2", "--connect-timeout", "3", "hostid"});
  EXPECT_EQ(settings.jobs, 7);
  EXPECT_EQ(settings.wave, "2");
  EXPECT_EQ(settings.limits(settings.targets[0]).connectTimeout(), std::chrono::seconds(3));
}

TEST_F(TargetsTest, AProgramHasTheLimitOfItsDevice) {
  writeInventory("[devices]\nslow = { timeout = 60 }\nfast = {}\n");
  (void)targets({"-a", "exec", "true"});
  EXPECT_EQ(settings.programLimitOf(settings.targets[0]), 60);
  EXPECT_EQ(settings.programLimitOf(settings.targets[1]), 0);
  (void)targets({"-a", "--timeout", "5", "exec", "true"});
  EXPECT_EQ(settings.programLimitOf(settings.targets[0]), 5);
}

TEST_F(TargetsTest, ASessionKeepsTheDefaultsOfItsGroup) {
  writeInventory("[devices]\na = {}\n[groups.g]\ndevices = [\"a\"]\njobs = 2\nwave = \"1,rest\"\n");
  (void)targets({"-g", "g", "shell"});
  base = settings;
  (void)targets({"hostid"});
  EXPECT_EQ(settings.jobs, 2);
  EXPECT_EQ(settings.wave, "1,rest");
  (void)targets({"-d", "b", "hostid"});
  EXPECT_EQ(settings.jobs, 64);
  EXPECT_EQ(settings.wave, "");
}

TEST_F(TargetsTest, ACommandLineOfASessionKeepsItsDevicesUnlessItNamesOthers) {
  base.targets = {runel::Address("a").named("first"), runel::Address("b")};
  base.jobs = 3;
  base.jobsGiven = true;
  base.json = true;
  setenv("RUNELCTL_DEVICE", "surprise", 1);
  EXPECT_EQ(targets({"hostid"}), (Words{"first", "b"}));
  EXPECT_EQ(settings.jobs, 3);
  EXPECT_TRUE(settings.json);
  EXPECT_EQ(targets({"-x", "b", "hostid"}), (Words{"first"}));
  EXPECT_EQ(targets({"-d", "c", "hostid"}), (Words{"c"}));
  EXPECT_EQ(targets({"exec", "ls", "-d", "x"}), (Words{"first", "b"})) << "-d belongs to ls";
}

TEST_F(TargetsTest, ACommandWithoutDevicesDoesNotReadTheInventory) {
  writeInventory("nonsense");
  CommandLine typed;
  ASSERT_EQ(typed.parse({"completion", "bash"}), -1);
  EXPECT_TRUE(typed.readTargets().ok());
  CommandLine other;
  ASSERT_EQ(other.parse({"hostid"}), -1);
  EXPECT_FALSE(other.readTargets().ok());
}

// What is said about a command line that is not understood.
std::string complaint(const Words& words) {
  ::testing::internal::CaptureStderr();
  EXPECT_EQ(parse(words), 2);
  return ::testing::internal::GetCapturedStderr();
}

TEST(CommandLineTest, SurplusArgumentsAreListedInTheirOrder) {
  EXPECT_EQ(complaint({"hostid", "one", "two", "three"}),
            "runelctl: unexpected arguments: one two three (see runelctl hostid --help)\n");
  EXPECT_EQ(complaint({"sh", "echo", "one", "two"}),
            "runelctl: unexpected arguments: one two (see runelctl sh --help)\n");
  EXPECT_EQ(complaint({"ps", "a", "b"}),
            "runelctl: unexpected argument: b (see runelctl ps --help)\n");
}

TEST(CommandLineTest, MisspelledCommandsAndOptionsHaveASuggestion) {
  EXPECT_EQ(complaint({"exce", "ls"}),
            "runelctl: unknown command 'exce' (did you mean 'exec'? see runelctl --help)\n");
  EXPECT_EQ(complaint({"nothing-like-it"}),
            "runelctl: unknown command 'nothing-like-it' (see runelctl --help)\n");
  EXPECT_EQ(
      complaint({"hostid", "--jsno"}),
      "runelctl: unknown option '--jsno' (did you mean '--json'? see runelctl hostid --help)\n");
  EXPECT_EQ(complaint({"reboot", "--wiat", "x"}),
            "runelctl: unknown option '--wiat' (did you mean '--wait'? see runelctl reboot "
            "--help)\n");
}

}  // namespace
}  // namespace runelctl
