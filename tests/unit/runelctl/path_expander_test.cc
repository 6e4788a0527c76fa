// SPDX-License-Identifier: Apache-2.0
// Patterns of paths on the device, against a device with prepared directories.
#include "commands/path_expander.h"

#include <cerrno>
#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "client/core/paths.h"
#include "commands/glob_pattern.h"

namespace runelctl {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using Strings = std::vector<std::string>;

TEST(GlobPatternTest, ABracketThatIsNotClosedIsNoPattern) {
  for (const char* word : {"a*", "?", "/x/[ab]", "[a]/b", "\\*", "\\[a]"}) {
    EXPECT_TRUE(isPattern(word)) << word;
  }
  for (const char* word : {"", "/x/[ab", "[a/b]", "a]"}) {
    EXPECT_FALSE(isPattern(word)) << word;
  }
}

TEST(GlobPatternTest, ComponentsHaveNoEmptyOnes) {
  const auto parts = globComponents("//a/*b/c\\*/");
  ASSERT_EQ(parts.size(), 3U);
  EXPECT_EQ(parts[0].name(), "a");
  EXPECT_TRUE(parts[1].wild());
  EXPECT_FALSE(parts[2].wild());
  EXPECT_EQ(parts[2].name(), "c*");
}

TEST(GlobPatternTest, HiddenNamesNeedADot) {
  EXPECT_FALSE(GlobComponent("*").matches(".a") || GlobComponent("[.]a").matches(".a"));
  EXPECT_FALSE(GlobComponent("?a").matches(".a"));
  EXPECT_TRUE(GlobComponent(".*").matches(".a") && GlobComponent("\\.*").matches(".a"));
  EXPECT_FALSE(GlobComponent(".*").matches(".") || GlobComponent(".*").matches(".."));
}

TEST(GlobPatternTest, NamesThatLeadElsewhereDoNotMatch) {
  for (const std::string& name :
       {std::string(), std::string("a/b"), std::string("/"), std::string("a\0b", 3)}) {
    EXPECT_FALSE(GlobComponent("**").matches(name)) << name;
  }
}

runel::Reply replyOf(const std::string& output, int number) {
  const std::string fields = number == 0 ? " 0 0 0 0 0" : " 1 0 1 " + std::to_string(number) + " 0";
  return *runel::Reply::decode("SlaveTask 0 0 " + std::to_string(output.size()) + ":" + output +
                               fields);
}

class PathExpanderTest : public ::testing::Test {
 protected:
  // Lists a directory of the device. A name with a slash at its end is a directory too.
  void has(const std::string& directory, const Strings& names) {
    for (std::string name : names) {
      const bool further = !name.empty() && name.back() == '/';
      name.resize(name.size() - (further ? 1 : 0));
      directories[directory].push_back(name);
      exists[runel::joinPath(directory, name)] = further;
    }
  }

  void expand(const Strings& words, const std::string& directory = "") {
    std::vector<std::pair<runel::Request, runel::ReplyHandler>> queue;
    PathExpander expander(
        [&](const runel::Request& request, runel::ReplyHandler handler) {
          queue.emplace_back(request, std::move(handler));
        },
        directory);
    int ends = 0;
    expander.expand(words, [&](PathExpander::Expanded end) {
      result = std::move(end);
      ++ends;
    });
    while (!queue.empty()) {
      const auto [request, handler] = queue.front();
      queue.erase(queue.begin());
      handler(answer(request.words()));
    }
    EXPECT_EQ(ends, 1);
  }

  runel::Reply answer(const Strings& words) {
    asked.push_back(words[0] + " " + words[1]);
    if (asked.size() == loseAt) {
      return runel::Error(runel::Kind::link, runel::Cause::closed, "connection closed");
    }
    if (words[0] == "lstat") {
      const bool slash = words[1].back() == '/';
      const auto found = exists.find(words[1].substr(0, words[1].size() - (slash ? 1 : 0)));
      const bool there = found != exists.end() && (found->second || !slash);
      return replyOf("", there ? 0 : ENOENT);
    }
    const auto found = directories.find(words[1]);
    if (found == directories.end()) {
      return replyOf("", words[1] == "/secret" ? EACCES : ENOTDIR);
    }
    std::string text = "StringVec " + std::to_string(found->second.size()) + "\n";
    for (const std::string& name : found->second) {
      text += std::to_string(name.size()) + ":" + name + "\n";
    }
    return replyOf(malformed ? "none" : text, 0);
  }

  std::map<std::string, Strings> directories;
  std::map<std::string, bool> exists;
  Strings asked;
  std::size_t loseAt = 0;
  bool malformed = false;
  PathExpander::Expanded result;
};

TEST_F(PathExpanderTest, WordsWithoutPatternsNeedNoRequest) {
  expand({"/a", "b\\c", ""}, "/d");
  EXPECT_THAT(result.paths, ElementsAre("/a", "/d/b\\c", "/d"));
  EXPECT_FALSE(result.matched);
  EXPECT_THAT(asked, IsEmpty());
}

TEST_F(PathExpanderTest, MatchesAreSorted) {
  has("/d", {"c.log", "a.log", "b.txt", ".x.log", "B.log"});
  expand({"/z", "/d/*.log"});
  EXPECT_THAT(result.paths, ElementsAre("/z", "/d/B.log", "/d/a.log", "/d/c.log"));
  EXPECT_TRUE(result.matched);
  EXPECT_THAT(asked, ElementsAre("lstat /d/*.log", "readdir /d"));
}

TEST_F(PathExpanderTest, EachComponentMayBeAPattern) {
  has("/", {"d1/", "d2/", "f"});
  has("/d1", {"x/", "y"});
  has("/d2", {"x", "z/"});
  expand({"/d?/[xz]"});
  EXPECT_THAT(result.paths, ElementsAre("/d1/x", "/d2/x", "/d2/z"));
  expand({"/*/x"});
  EXPECT_THAT(result.paths, ElementsAre("/d1/x", "/d2/x"));
  expand({"/d*/*/"});
  EXPECT_THAT(result.paths, ElementsAre("/d1/x/", "/d2/z/"));
}

TEST_F(PathExpanderTest, RelativePatternsStartFromTheDirectory) {
  has(".", {"a", "b"});
  expand({"*"});
  EXPECT_THAT(result.paths, ElementsAre("a", "b"));
  has("/odd[1]", {"c"});
  expand({"?"}, "/odd[1]");  // which is not a part of the pattern
  EXPECT_THAT(result.paths, ElementsAre("/odd[1]/c"));
}

TEST_F(PathExpanderTest, AnExistingFileIsNotAPattern) {
  has("/d", {"a*", "ab"});
  expand({"/d/a*"});
  EXPECT_THAT(result.paths, ElementsAre("/d/a*"));
  EXPECT_FALSE(result.matched);
}

TEST_F(PathExpanderTest, ABackslashQuotes) {
  has("/d", {"x*y", "xay"});
  expand({"/d/x\\*y"});
  EXPECT_THAT(result.paths, ElementsAre("/d/x*y"));
  EXPECT_FALSE(result.matched);
  expand({"/*/x\\*y"});
  EXPECT_EQ(result.failures.size(), 1U);
  has("/", {"d/"});
  expand({"/*/x\\*y"});
  EXPECT_THAT(result.paths, ElementsAre("/d/x*y"));
}

TEST_F(PathExpanderTest, NoMatchNamesThePatternAndTheOthersAreExpanded) {
  has("/d", {"a"});
  expand({"/d/*.log", "/none/*", "/d/?"});
  EXPECT_THAT(result.paths, ElementsAre("/d/a"));
  ASSERT_EQ(result.failures.size(), 2U);
  EXPECT_EQ(result.failures[0].what, "/d/*.log: no match");
  EXPECT_EQ(result.failures[1].what, "/none/*: no match");
}

TEST_F(PathExpanderTest, ADirectoryThatCannotBeReadIsAnError) {
  expand({"/secret/*"});
  ASSERT_EQ(result.failures.size(), 1U);
  EXPECT_EQ(result.failures[0].what, "/secret: Permission denied");
  has("/d", {"a"});
  malformed = true;
  expand({"/d/*"});
  EXPECT_EQ(result.failures[0].what, "/d: malformed answer");
}

TEST_F(PathExpanderTest, ALostConnectionEndsIt) {
  has("/", {"d/"});
  has("/d", {"a/"});
  for (loseAt = 1; loseAt <= 4; ++loseAt) {
    asked.clear();
    expand({"/*/*/", "/b*"});
    ASSERT_TRUE(result.lost) << loseAt;
    EXPECT_FALSE(result.lost->answered());
    EXPECT_EQ(asked.size(), loseAt);
  }
}

TEST_F(PathExpanderTest, HostileNamesAreLeftOut) {
  has("/d", {"..", ".", "", "a/b", "/etc", std::string("n\0l", 3), "good"});
  expand({"/d/*"});
  EXPECT_THAT(result.paths, ElementsAre("/d/good"));
  expand({"/d/.*"});
  EXPECT_EQ(result.failures.size(), 1U);
}

TEST_F(PathExpanderTest, SameNamesAreOneTarget) {
  EXPECT_FALSE(sameNames({{"/a/x", "/b/x"}, false, {}, std::nullopt}));
  EXPECT_FALSE(sameNames({{"/a/x", "/b/y"}, true, {}, std::nullopt}));
  const auto error = sameNames({{"/a/x", "/b/x/"}, true, {}, std::nullopt});
  ASSERT_TRUE(error);
  EXPECT_EQ(error->what, "/a/x and /b/x/ have the same name and one target directory");
}

}  // namespace
}  // namespace runelctl
