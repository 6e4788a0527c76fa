// SPDX-License-Identifier: Apache-2.0
// The content of inventory files.
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "inventory/parse_inventory.h"

namespace runelctl {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Pair;
using ::testing::SizeIs;
using ::testing::StartsWith;

class InventoryTest : public ::testing::Test {
 protected:
  // "LINE: TEXT" of each problem.
  std::vector<std::string> problems(const std::string& text) {
    inventory = Inventory();
    std::vector<std::string> all;
    for (const InventoryProblem& problem : parseInventory(text, inventory)) {
      all.push_back(std::to_string(problem.line) + ": " + problem.text);
    }
    return all;
  }
  void read(const std::string& text) { ASSERT_THAT(problems(text), IsEmpty()); }
  const InventoryDevice& device(const std::string& name) { return *inventory.device(name); }

  Inventory inventory;
};

TEST_F(InventoryTest, ADeviceIsAnAddressOrATable) {
  read(
      "[devices]\nhall = \"192.0.2.1:7000\"\nroof = { address = \"@unit-7\" }\n"
      "[devices.gw-1]\n");
  EXPECT_EQ(device("hall").address.text(), "192.0.2.1:7000");
  EXPECT_EQ(device("roof").address.through(), "unit-7");
  EXPECT_EQ(device("gw-1").address.host(), "gw-1") << "the name is the usual address";
  for (const InventoryDevice& one : inventory.devices()) {
    EXPECT_EQ(one.address.name(), one.name);
  }
}

TEST_F(InventoryTest, DevicesHaveTheOrderOfTheFile) {
  read("[devices]\nzoo = \"a\"\nhall = \"b\"\n[devices.attic]\n");
  std::vector<std::string> names;
  for (const InventoryDevice& one : inventory.devices()) {
    names.push_back(one.name);
  }
  EXPECT_THAT(names, ElementsAre("zoo", "hall", "attic"));
}

TEST_F(InventoryTest, NamesAndAddressesMayHaveRanges) {
  read("[devices]\n\"gw-[01-03]\" = \"192.0.2.[11-13]\"\n[devices.\"x[1-2]\"]\n");
  EXPECT_EQ(inventory.devices().size(), 5U);
  EXPECT_EQ(device("gw-03").address.host(), "192.0.2.13");
  EXPECT_EQ(device("x2").address.host(), "x2");
}

TEST_F(InventoryTest, ADeviceHasTags) {
  read("[devices.hall]\ntags = { site = \"north side\", floor = 3, spare = false }\n");
  EXPECT_THAT(device("hall").tags,
              ElementsAre(Pair("floor", "3"), Pair("site", "north side"), Pair("spare", "false")));
}

TEST_F(InventoryTest, AGroupIsAListOrATable) {
  read(
      "[groups]\nall = [\"gw-[1-2]\", \"hall\", \"gw-1\"]\nnorth = { devices = [\"hall\"] }\n"
      "[devices]\nhall = \"a\"\n\"gw-[1-2]\" = \"192.0.2.[1-2]\"\n");
  EXPECT_THAT(inventory.group("all")->members, ElementsAre(1U, 2U, 0U));
  EXPECT_THAT(device("hall").groups, ElementsAre("all", "north"));
  EXPECT_EQ(inventory.group("south"), nullptr);
  EXPECT_THAT(inventory.groupNames(), ElementsAre("all", "north"));
}

TEST_F(InventoryTest, TheTimeoutsOfADevicePrecedeThoseOfItsGroupsAndOfAll) {
  read(
      "[defaults]\ntimeout = 60\nconnect-timeout = 1\nio-timeout = 2\ndeadline = 3\n"
      "[groups.g]\ndevices = [\"a\", \"b\"]\nio-timeout = 20\ndeadline = 30\n"
      "[groups.later]\ndevices = [\"b\"]\ndeadline = 40\n"
      "[devices.a]\ndeadline = 300.5\n[devices.b]\ntimeout = 90\n[devices.c]\n");
  EXPECT_EQ(device("a").timeouts.connect, 1);
  EXPECT_EQ(device("a").timeouts.io, 20);
  EXPECT_EQ(device("a").timeouts.deadline, 300.5);
  EXPECT_EQ(device("b").timeouts.deadline, 40) << "the last group in the file";
  EXPECT_EQ(device("c").timeouts.io, 2);
  EXPECT_EQ(device("b").timeouts.program, 90);
  EXPECT_EQ(device("c").timeouts.program, 60);
}

TEST_F(InventoryTest, ADeadlineOfZeroReplacesOtherOnes) {
  read("[defaults]\ndeadline = 30\n[devices.a]\ndeadline = 0\n");
  EXPECT_EQ(device("a").timeouts.deadline, 0);
}

TEST_F(InventoryTest, GroupsAndDefaultsHaveValuesForARun) {
  read(
      "[defaults]\njobs = 8\nmax-fail = 2\nwave = \"1,10%,rest\"\n[devices]\na = \"a\"\n"
      "[groups.g]\ndevices = [\"a\"]\njobs = 2\n");
  EXPECT_EQ(inventory.defaults().run.jobs, 8);
  EXPECT_EQ(inventory.defaults().run.maxFail, 2);
  EXPECT_EQ(inventory.defaults().run.wave, "1,10%,rest");
  EXPECT_EQ(inventory.group("g")->defaults.run.jobs, 2);
}

TEST_F(InventoryTest, AMalformedFileHasItsLine) {
  EXPECT_THAT(problems("[devices]\nhall = 192.0.2.1\n"), ElementsAre(StartsWith("2: ")));
  EXPECT_THAT(problems("hall 192.0.2.1\n"), ElementsAre(StartsWith("1: ")));
  EXPECT_THAT(problems("[devices]\na = \"b\"\na = \"c\"\n"), ElementsAre(StartsWith("3: ")));
}

// The library that parses TOML has undefined behaviour for some characters in place of white space.
TEST_F(InventoryTest, OnlyStringsAndCommentsHaveCharactersBeyondAscii) {
  for (const char* text :
       {"[devices]\n# \u03db\n\u03db = \"a\"\n", "[devices]\na = \"b\"\ng\u03dbc = \"d\"\n",
        "[devices]\na = \"b\\\"\"\nc = \u00e9\n", "a = \"\"\"x\n\"\"\"\"\n\u00a0b = 1\n",
        "a = 'x\\'\nb = '\n\u3000c = 1\n", "a = '''x\n'''\nb = 1 \u00e9\n"}) {
    EXPECT_THAT(problems(text),
                ElementsAre("3: expected ASCII characters outside of strings and comments"))
        << text;
  }
}

TEST_F(InventoryTest, StringsAndCommentsMayHaveAnyCharacters) {
  read(
      "\ufeff[devices.a]  # Gro\u00df\naddress = \"h\"  # \u03db's\n[devices.a.tags]\n"
      "b = \"\u03db\\\"\u03db\"\nc = '\u03db\\'\nd = \"\"\"\n\"\u03db\\\"\\\n\"\"\"\"\"\n"
      "e = '''\n'\u03db'''\nf = \"\"\n");
  EXPECT_EQ(inventory.device("a")->tags.at("d"), "\"\u03db\"\"\"");
  EXPECT_EQ(inventory.device("a")->tags.at("e"), "'\u03db");
}

TEST_F(InventoryTest, UnknownKeysHaveASuggestion) {
  EXPECT_THAT(problems("[device]\n"),
              ElementsAre("1: unknown key 'device' (did you mean 'devices'?)"));
  EXPECT_THAT(problems("[devices.a]\nadress = \"x\"\n[defaults]\njob = 1\n[groups.g]\nx = 1\n"),
              ElementsAre("2: device a: unknown key 'adress' (did you mean 'address'?)",
                          "4: defaults: unknown key 'job' (did you mean 'jobs'?)",
                          "6: group g: unknown key 'x'"));
}

TEST_F(InventoryTest, AllProblemsAreReportedInTheOrderOfTheirLines) {
  EXPECT_THAT(problems("[groups]\ng = [\"b\"]\n[devices]\n\"a b\" = \"c\"\nd = \"e:99999\"\n"),
              ElementsAre("2: group g: no device 'b'",
                          "4: invalid device name 'a b': expected letters, digits, '.', '_' and "
                          "'-'",
                          "5: device d: invalid port '99999': expected 1 to 65535"));
}

TEST_F(InventoryTest, NamesAndAddressesAreUnique) {
  EXPECT_THAT(problems("[devices]\n\"gw-[1-2]\" = \"192.0.2.[1-2]\"\ngw-2 = \"192.0.2.9\"\n"),
              ElementsAre("3: device gw-2 is defined twice (line 2)"));
  EXPECT_THAT(problems("[devices]\na = \"HOST\"\nb = \"host:5111\"\n"),
              ElementsAre("3: device b has the address of device a (line 2)"));
  EXPECT_THAT(problems("[devices]\na = \"AZ\"\nb = \"az\"\n"),
              ElementsAre("3: device b has the address of device a (line 2)"));
}

TEST_F(InventoryTest, NamesMayHaveAnyLettersAndDigits) {
  read("[devices.AZaz09]\ntags = { AZaz09 = 1 }\n[groups]\nAZaz09 = [\"AZaz09\"]\n");
  EXPECT_THAT(device("AZaz09").groups, ElementsAre("AZaz09"));
  EXPECT_THAT(problems("[devices]\n\"-a\" = {}\n\"[\" = {}\n\"@\" = {}\n"), SizeIs(3));
}

TEST_F(InventoryTest, RejectsValuesOfAnotherType) {
  EXPECT_THAT(problems("devices = 1\ngroups = \"x\"\ndefaults = []\n"),
              ElementsAre("1: devices: expected a table", "2: groups: expected a table",
                          "3: defaults: expected a table"));
  for (const char* line :
       {"io-timeout = \"5\"", "io-timeout = 0", "io-timeout = nan", "deadline = inf",
        "deadline = -1", "timeout = 0", "timeout = 1.5", "connect-timeout = 0", "jobs = 0",
        "jobs = 1.5", "jobs = 99999999999", "max-fail = -1", "wave = \"x\"", "wave = 1"}) {
    EXPECT_THAT(problems("[defaults]\n" + std::string(line) + "\n"),
                ElementsAre(StartsWith("2: defaults: ")))
        << line;
  }
  for (const char* line :
       {"a = 1", "a = { address = 1 }", "a = { address = \"\" }", "a = { tags = 1 }",
        "a = { tags = { k = [] } }", "a = { tags = { \"k k\" = \"v\" } }",
        "a = { tags = { k = \"\\n\" } }"}) {
    EXPECT_THAT(problems("[devices]\n" + std::string(line) + "\n"),
                ElementsAre(StartsWith("2: device a: ")))
        << line;
  }
  for (const char* line : {"g = 1", "g = [1]", "g = [\"x[\"]", "g = { devices = \"x\" }"}) {
    EXPECT_THAT(problems("[groups]\n" + std::string(line) + "\n"),
                ElementsAre(StartsWith("2: group g: ")))
        << line;
  }
  EXPECT_THAT(problems("[groups]\n\"g h\" = []\n"), ElementsAre(StartsWith("2: invalid group")));
}

TEST_F(InventoryTest, RangesOfNamesAndAddressesHaveTheSameLength) {
  EXPECT_THAT(problems("[devices]\n\"a[1-3]\" = \"x[1-2]\"\n"),
              ElementsAre("2: device a[1-3]: 3 names, but 2 addresses"));
  EXPECT_THAT(problems("[devices]\n\"a[1-\" = \"x\"\n"), ElementsAre(StartsWith("2: device a[1-")));
}

TEST_F(InventoryTest, LimitsDevicesMembersAndProblems) {
  EXPECT_THAT(problems("[devices]\n\"a[1-100000]\" = {}\nb = {}\n"),
              ElementsAre("3: more than 100000 devices"));
  std::string file = "[devices]\n\"a[1-100000]\" = {}\n[groups]\n";
  for (int group = 0; group < 11; ++group) {
    file += "g" + std::to_string(group) + " = [\"a[1-100000]\"]\n";
  }
  EXPECT_THAT(problems(file), ElementsAre("14: more than 1000000 members of groups"));
  std::string lines;
  for (int line = 0; line < 1000; ++line) {
    lines += "x" + std::to_string(line) + " = 1\n";
  }
  EXPECT_EQ(problems(lines).size(), 50U);
}

}  // namespace
}  // namespace runelctl
