// SPDX-License-Identifier: Apache-2.0
// Which paths the rules of --exclude leave out, and what a sync then removes.
#include "client/core/path_filter.h"

#include <map>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "client/transfer/push/removals.h"

namespace runel {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using Strings = std::vector<std::string>;

PathFilter filterOf(const Strings& rules) {
  PathFilter filter;
  EXPECT_FALSE(filter.add(rules));
  return filter;
}

// Whether @p rule leaves out the file @p path.
bool out(const char* rule, const char* path) {
  return filterOf({rule}).leavesOut(path, false);
}

bool outDirectory(const char* rule, const char* path) {
  return filterOf({rule}).leavesOut(path, true);
}

TEST(PathFilterTest, APatternWithoutASlashMatchesTheLastComponent) {
  EXPECT_TRUE(out("*.o", "a.o") && out("*.o", "d/e/a.o") && out("core", "d/core"));
  EXPECT_FALSE(out("*.o", "a.o/b") || out("core", "core2"));
}

TEST(PathFilterTest, APatternWithASlashMatchesTheEndOfThePath) {
  EXPECT_TRUE(out("d/*.o", "d/a.o") && out("d/*.o", "x/d/a.o"));
  EXPECT_FALSE(out("d/*.o", "xd/a.o") || out("d/*.o", "d/e/a.o") || out("d/*.o", "a.o"));
}

TEST(PathFilterTest, ALeadingSlashAnchorsThePattern) {
  EXPECT_TRUE(out("/a.o", "a.o") && out("/d/*", "d/x"));
  EXPECT_FALSE(out("/a.o", "d/a.o") || out("/d/*", "x/d/x") || out("/d/*", "d/e/x"));
}

TEST(PathFilterTest, ATrailingSlashMatchesDirectoriesOnly) {
  EXPECT_TRUE(outDirectory("build/", "build") && outDirectory("build/", "x/build"));
  EXPECT_TRUE(outDirectory("/build/", "build"));
  EXPECT_FALSE(out("build/", "build") || outDirectory("/build/", "x/build"));
}

TEST(PathFilterTest, TwoStarsCrossDirectories) {
  EXPECT_TRUE(out("doc/**", "x/doc/a/b") && out("/doc/**.txt", "doc/a/b.txt"));
  EXPECT_TRUE(out("**/core", "core") && out("**/core", "a/b/core") && out("a**z", "x/a/b/z"));
  EXPECT_FALSE(out("doc/**", "doc") || out("/doc/**", "x/doc/a") || out("/**/core", "core"));
}

TEST(PathFilterTest, ABackslashQuotesOnlyBesideWildcards) {
  EXPECT_TRUE(out("\\**", "*x") && out("a\\b", "a\\b"));
  EXPECT_FALSE(out("\\**", "x") || out("a\\b", "ab"));
}

TEST(PathFilterTest, TheFirstRuleThatMatchesDecides) {
  const PathFilter filter = filterOf({"+ keep.o", "- *.o", "x*", "+ xy"});
  EXPECT_FALSE(filter.leavesOut("keep.o", false) || filter.leavesOut("other", false));
  EXPECT_TRUE(filter.leavesOut("a.o", false) && filter.leavesOut("xy", false));
}

TEST(PathFilterTest, ADirectoryHidesWhatIsBelowIt) {
  const PathFilter filter = filterOf({"+ keep", "build/"});
  EXPECT_TRUE(filter.hides("build", true) && filter.hides("build/a/keep", false));
  EXPECT_TRUE(filter.hides("x/build/keep", false));
  EXPECT_FALSE(filter.hides("build", false) || filter.hides("x/builds/a", false));
  EXPECT_FALSE(filterOf({"*"}).hides(".", true));
}

TEST(PathFilterTest, ASourceMatchesByItsNameOnly) {
  const PathFilter filter = filterOf({"/a", "b/", "*.o"});
  EXPECT_TRUE(filter.leavesOutSource("x.o", false) && filter.leavesOutSource("b", true));
  EXPECT_FALSE(filter.leavesOutSource("a", false) || filter.leavesOutSource("b", false));
  for (const char* name : {".", "..", "/"}) {
    EXPECT_FALSE(filterOf({"*"}).leavesOutSource(name, true)) << name;
  }
}

TEST(PathFilterTest, InvalidRulesAreErrors) {
  for (const char* rule : {"", "/", "//", "+ ", "- /", "!"}) {
    PathFilter filter;
    const auto error = filter.add(std::string(rule));
    ASSERT_TRUE(error) << rule;
    EXPECT_THAT(error->text(), ::testing::HasSubstr("'" + std::string(rule) + "'"));
  }
}

TEST(PathFilterTest, AFileOfRulesHasComments) {
  EXPECT_THAT(filterRulesIn("# all\n*.o\n\n; more\n + x\r\n+ y z"),
              ElementsAre("*.o", " + x", "+ y z"));
  EXPECT_THAT(filterRulesIn(""), IsEmpty());
}

class RemovalsTest : public ::testing::Test {
 protected:
  // Paths of directories end with a slash.
  Removals removals(const Strings& paths, const Strings& rules) {
    std::map<std::string, TreeEntry> entries;
    for (std::string path : paths) {
      const bool directory = path.back() == '/';
      path.resize(path.size() - (directory ? 1 : 0));
      entries[path].path = path;
      entries[path].type = directory ? 'd' : '-';
    }
    ExtraEntries extra;
    for (const auto& [path, entry] : entries) {
      extra[path] = &entry;
    }
    return removalsOf(extra, filterOf(rules));
  }
  Strings paths(const Strings& extra, const Strings& rules) {
    Strings found;
    for (const TreeEntry& entry : removals(extra, rules).entries) {
      found.push_back(entry.path);
    }
    return found;
  }
};

TEST_F(RemovalsTest, ADirectoryIsRemovedWithItsEntries) {
  const Strings extra{"d/", "d/a", "d/e/", "d/e/b", "kept/x", "z"};
  EXPECT_THAT(removals(extra, {}).tops, ElementsAre("d", "kept/x", "z"));
  EXPECT_THAT(paths(extra, {}), ElementsAre("d", "d/a", "d/e", "d/e/b", "kept/x", "z"));
}

TEST_F(RemovalsTest, WhatIsLeftOutStaysWithItsDirectories) {
  const Strings extra{"d/", "d/a.log", "d/b", "d/e/", "d/e/c", "f/", "f/g/", "f/g/x.log"};
  EXPECT_THAT(removals(extra, {"*.log"}).tops, ElementsAre("d/b", "d/e"));
  EXPECT_THAT(paths(extra, {"*.log"}), ElementsAre("d/b", "d/e", "d/e/c"));
  EXPECT_THAT(removals(extra, {"d/"}).tops, ElementsAre("f"));
  EXPECT_THAT(removals(extra, {"*"}).tops, IsEmpty());
}

TEST_F(RemovalsTest, NothingIsRemovedFromSomethingThatIsNotADirectory) {
  EXPECT_THAT(paths({".", "a"}, {}), IsEmpty());
}

TEST_F(RemovalsTest, AnyPathOfADeviceIsTaken) {
  const Strings odd{"/", "/a", "..", "../b", "a//b", "x/"};
  EXPECT_EQ(paths(odd, {}).size(), odd.size());
  EXPECT_THAT(paths(odd, {"*"}), ::testing::Not(::testing::Contains("/a")));
}

}  // namespace
}  // namespace runel
