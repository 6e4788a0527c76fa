// SPDX-License-Identifier: Apache-2.0
#include "gateway/fleet/groups.h"

#include <string>

#include <gtest/gtest.h>

namespace {

using runelgw::Groups;
using runelgw::Query;

std::string refusal(const runel::Result<void>& result) {
  return result ? "" : result.error().text();
}

TEST(GatewayGroups, NamesAreChecked) {
  Groups groups;
  EXPECT_NE("", refusal(groups.set("all", "a")));
  EXPECT_NE("", refusal(groups.set("", "a")));
  EXPECT_NE("", refusal(groups.set("a b", "a")));
  EXPECT_NE("", refusal(groups.set(std::string(65, 'a'), "a")));
  EXPECT_EQ("", refusal(groups.set(std::string(64, 'a'), "a")));
}

TEST(GatewayGroups, AQueryMustParseAndItsGroupsMustExist) {
  Groups groups;
  EXPECT_EQ("at character 1: '(' without ')'", refusal(groups.set("a", "(b")));
  EXPECT_EQ("no group 'berlin'", refusal(groups.set("a", "@berlin")));
  ASSERT_EQ("", refusal(groups.set("berlin", "site=berlin")));
  EXPECT_EQ("no group 'berlim' (did you mean 'berlin'?)", refusal(groups.set("a", "@berlim")));
  EXPECT_EQ("no group 'x'", refusal(groups.check(*Query::parse("@x"))));
  EXPECT_EQ("", refusal(groups.check(*Query::parse("@berlin,@all"))));
}

TEST(GatewayGroups, CyclesAreRefusedAndTheOldQueryStays) {
  Groups groups;
  ASSERT_EQ("", refusal(groups.set("a", "x")));
  ASSERT_EQ("", refusal(groups.set("b", "@a")));
  ASSERT_EQ("", refusal(groups.set("c", "y,!@b")));
  EXPECT_EQ("a group cannot use itself: @a -> @c -> @b -> @a", refusal(groups.set("a", "@c")));
  EXPECT_EQ("x", groups.find("a")->text());
  EXPECT_EQ("a group cannot use itself: @a -> @a", refusal(groups.set("a", "@a")));
  EXPECT_EQ("x", groups.find("a")->text());
  EXPECT_EQ("a group cannot use itself: @d -> @d", refusal(groups.set("d", "@d")));
  EXPECT_EQ(nullptr, groups.find("d"));
}

TEST(GatewayGroups, AGroupInUseStays) {
  Groups groups;
  ASSERT_EQ("", refusal(groups.set("a", "x")));
  ASSERT_EQ("", refusal(groups.set("b", "@a")));
  EXPECT_EQ("the group 'b' uses it", refusal(groups.remove("a")));
  EXPECT_EQ("", refusal(groups.remove("b")));
  EXPECT_EQ("", refusal(groups.remove("a")));
  EXPECT_EQ("no group 'a'", refusal(groups.remove("a")));
}

TEST(GatewayGroups, TheWorkOfAQueryWithItsGroupsIsLimited) {
  Groups groups;
  ASSERT_EQ("", refusal(groups.set("g0", "a,b")));
  std::string last = "g0";
  std::string why;
  int level = 1;
  for (; level < 100 && why.empty(); ++level) {  // each is twice as much work
    const std::string name = "g" + std::to_string(level);
    why = refusal(groups.set(name, "@" + last + ",!@" + last));
    last = name;
  }
  EXPECT_EQ("with its groups the query has more than 8192 terms", why);
  EXPECT_EQ(13, level);
  EXPECT_EQ("", refusal(groups.set("h", "@g10")));
  EXPECT_NE("", refusal(groups.set("g0", "a,b,c,d,e,f")));  // more for all that use it
  EXPECT_EQ("a,b", groups.find("g0")->text());
}

TEST(GatewayGroups, TheDepthIsLimited) {
  Groups groups;
  ASSERT_EQ("", refusal(groups.set("g1", "a")));
  for (std::size_t level = 2; level <= Groups::kDeepest; ++level) {
    ASSERT_EQ("",
              refusal(groups.set("g" + std::to_string(level), "@g" + std::to_string(level - 1))));
  }
  EXPECT_EQ("groups use each other more than 16 levels deep", refusal(groups.set("x", "@g16")));
}

TEST(GatewayGroups, TimeMattersThroughGroupsToo) {
  Groups groups;
  ASSERT_EQ("", refusal(groups.set("a", "seen<7d")));
  ASSERT_EQ("", refusal(groups.set("b", "@a")));
  EXPECT_TRUE(groups.dependsOnTime(*Query::parse("x,@b")));
  EXPECT_FALSE(groups.dependsOnTime(*Query::parse("x")));
}

}  // namespace
