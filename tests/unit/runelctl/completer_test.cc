// SPDX-License-Identifier: Apache-2.0
// Completion in the shell.
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "shell/completer.h"

namespace runelctl {
namespace {

using Words = std::vector<std::string>;

OptionRow option(Words names, Value value = Value::none, Words words = {}) {
  return {std::move(names), "", "", value, std::move(words)};
}

Tables tables() {
  Tables all;
  all.options = {option({"--json"}), option({"-d", "--device"}, Value::device),
                 option({"--color"}, Value::oneOf, {"always", "auto", "never"}),
                 option({"--devices"}, Value::file), option({"-g"}, Value::group)};
  all.commands = {
      {"ls", "", {option({"-l"})}, {option({}, Value::remote)}},
      {"lstat", "", {}, {option({}, Value::remote)}},
      {"push", "", {option({"--checksum"})}, {option({}, Value::file), option({}, Value::remote)}},
      {"pull", "", {}, {option({}, Value::remote), option({}, Value::fileOrRemote)}},
      {"ping", "", {option({"-c", "--count"}, Value::any)}, {}},
      {"job",
       "",
       {},
       {},
       {{"start", "", {option({"--id"}, Value::any)}, {}}, {"stop", "", {}, {}}}}};
  return all;
}

class CompleterTest : public ::testing::Test {
 protected:
  Completer::Offer offer(const std::string& before) {
    const Completer completer(
        tables(), {"cd", "lcd"},
        {[this](const std::string& directory) {
           asked.push_back(directory);
           return remote;
         },
         [](const std::string&) {
           return std::vector<DirectoryEntry>{{"local-file", false}, {"local-directory", true}};
         },
         [] {
           return Words{"hall", "@unit"};
         },
         [] {
           return Words{"north", "nord"};
         }});
    return completer.complete(before);
  }
  Words words(const std::string& before) { return offer(before).words; }

  std::vector<DirectoryEntry> remote{
      {"etc", true}, {"exe", false}, {".hidden", false}, {"a b", false}};
  Words asked;
};

TEST_F(CompleterTest, OffersCommandsAndShellCommandsFirst) {
  EXPECT_EQ(words("l"), (Words{"lcd", "ls", "lstat"}));
  EXPECT_EQ(words("--json l"), (Words{"lcd", "ls", "lstat"}));
  EXPECT_EQ(words("--color always pi"), (Words{"ping"}));
  EXPECT_EQ(words("nothing-like-that"), Words());
}

TEST_F(CompleterTest, OffersSubcommandsAndTheirOptions) {
  EXPECT_EQ(words("job "), (Words{"start", "stop"}));
  EXPECT_EQ(words("job --json sta"), (Words{"start"}));
  EXPECT_EQ(words("job start --i"), (Words{"--id"}));
  EXPECT_EQ(words("job stop --i"), Words());
  EXPECT_EQ(words("job start --id x "), Words());
}

TEST_F(CompleterTest, ReplacesTheCurrentWord) {
  EXPECT_EQ(offer("ls /e").begin, 3U);
  EXPECT_EQ(offer("ls ").begin, 3U);
  EXPECT_EQ(offer("").begin, 0U);
}

TEST_F(CompleterTest, OffersGeneralAndCommandOptions) {
  EXPECT_EQ(words("--d"), (Words{"--device", "--devices"}));
  EXPECT_EQ(words("push --c"), (Words{"--checksum", "--color"}));
  EXPECT_EQ(words("ls --c"), (Words{"--color"}));
}

TEST_F(CompleterTest, OffersTheValuesOfAnOption) {
  EXPECT_EQ(words("ls --color a"), (Words{"always", "auto"}));
  EXPECT_EQ(words("--devices "), (Words{"local-directory/", "local-file"}));
  EXPECT_EQ(words("ping -c "), Words()) << "a number has no candidates";
  EXPECT_EQ(words("-d l"), Words()) << "and is not the command";
}

TEST_F(CompleterTest, OffersRemoteOrLocalPathsByArgument) {
  EXPECT_EQ(words("ls e"), (Words{"etc/", "exe"}));
  EXPECT_EQ(words("push l"), (Words{"local-directory/", "local-file"}));
  EXPECT_EQ(words("push x e"), (Words{"etc/", "exe"}));
  EXPECT_EQ(words("push x y e"), (Words{"etc/", "exe"})) << "the last argument repeats";
  EXPECT_EQ(words("ping e"), Words());
}

TEST_F(CompleterTest, OffersBothKindsOfPathsWhereBothMayStand) {
  remote.push_back({"local-file", false});
  EXPECT_EQ(words("pull l"), (Words{"local-file"}));
  EXPECT_EQ(words("pull x l"), (Words{"local-directory/", "local-file"})) << "each once";
  EXPECT_EQ(words("pull x e"), (Words{"etc/", "exe"}));
}

TEST_F(CompleterTest, OffersNamesOfDevicesAndGroups) {
  EXPECT_EQ(words("-d "), (Words{"@unit", "hall"}));
  EXPECT_EQ(words("ls --device h"), (Words{"hall"}));
  EXPECT_EQ(words("-g nor"), (Words{"nord", "north"}));
}

TEST_F(CompleterTest, OffersRemoteOrLocalPathsToShellCommands) {
  EXPECT_EQ(words("cd e"), (Words{"etc/", "exe"}));
  EXPECT_EQ(words("lcd l"), (Words{"local-directory/", "local-file"}));
}

TEST_F(CompleterTest, ListsTheTypedDirectory) {
  EXPECT_EQ(words("ls /var/e"), (Words{"/var/etc/", "/var/exe"}));
  EXPECT_EQ(words("ls /e"), (Words{"/etc/", "/exe"}));
  EXPECT_EQ(words("ls e"), (Words{"etc/", "exe"}));
  EXPECT_EQ(asked, (Words{"/var/", "/", "."}));
}

TEST_F(CompleterTest, OffersHiddenNamesOnlyAfterADot) {
  EXPECT_EQ(words("ls "), (Words{"a\\ b", "etc/", "exe"}));
  EXPECT_EQ(words("ls ."), (Words{".hidden"}));
}

TEST_F(CompleterTest, QuotesNames) {
  EXPECT_EQ(words("ls a"), (Words{"a\\ b"}));
  EXPECT_EQ(words("ls 'a "), (Words{"a\\ b"})) << "in place of the open quote";
}

TEST_F(CompleterTest, DoesNotOfferNamesWithControlCharacters) {
  remote = {{"\x1b[2J", false}, {"a\nb", false}, {"\x7f", false}, {"\xc3\xa4", false}};
  EXPECT_EQ(words("ls "), (Words{"\xc3\xa4"}));
}

TEST(SharedBeginningTest, IsTheLongestCommonPrefix) {
  EXPECT_EQ(sharedBeginning({}), "");
  EXPECT_EQ(sharedBeginning({"abc"}), "abc");
  EXPECT_EQ(sharedBeginning({"abc", "abd", "ab"}), "ab");
  EXPECT_EQ(sharedBeginning({"a", "b"}), "");
}

TEST(SharedBeginningTest, EndsWithACompleteCharacter) {
  EXPECT_EQ(sharedBeginning({"x\xc3\xa4", "x\xc3\xb6"}), "x");
  EXPECT_EQ(sharedBeginning({"x\xe2\x82\xac", "x\xe2\x82\xa9"}), "x");
  EXPECT_EQ(sharedBeginning({"a\\ b", "a\\'b"}), "a") << "never cut inside an escape sequence";
  EXPECT_EQ(sharedBeginning({"a\\\\b", "a\\\\c"}), "a\\\\");
}

}  // namespace
}  // namespace runelctl
