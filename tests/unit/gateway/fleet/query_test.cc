// SPDX-License-Identifier: Apache-2.0
#include "gateway/fleet/query.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "gateway/fleet/groups.h"

namespace {

using runelgw::Device;
using runelgw::DeviceState;
using runelgw::Query;
using runelgw::QueryError;

constexpr std::int64_t kNow = 1'700'000'000'000;
constexpr std::int64_t kHour = 3600 * 1000;

Device gatewayDevice() {
  Device device;
  device.id = 7;
  device.hostid = "gw-7";
  device.name = "gw-7";
  device.state = DeviceState::offline;
  device.address = "10.1.2.3";
  device.certificate = "gw-7.example";
  device.lastSeen = kNow - 2 * kHour;
  device.deviceType = "controller";
  device.kernel = "5.10.0-18-arm";
  device.freeBytes = 50 << 20;
  device.tags = {{"site", "berlin"}, {"path", "a/b"}, {"ring", "2"}};
  device.ruleTags = {"ring"};
  return device;
}

bool selects(const std::string& text, const Device& device = gatewayDevice(),
             Query::Context context = {kNow, {}, true}) {
  QueryError error;
  const auto query = Query::parse(text, error);
  EXPECT_TRUE(query) << text << ": " << error.sentence();
  return query && query->matches(device, context);
}

std::string errorOf(const std::string& text) {
  QueryError error;
  const auto query = Query::parse(text, error);
  EXPECT_FALSE(query) << text;
  EXPECT_LE(error.position, text.size());
  return query ? "" : error.sentence();
}

TEST(GatewayQuery, NamesSelectByNameOrByTheNameOfATag) {
  EXPECT_TRUE(selects("gw-7"));
  EXPECT_FALSE(selects("gw-8"));
  EXPECT_FALSE(selects("gw"));
  EXPECT_TRUE(selects("site"));
  EXPECT_FALSE(selects("sit*"));  // a pattern is never the name of a tag
  EXPECT_TRUE(selects("name:gw-7"));
  EXPECT_FALSE(selects("name:site"));
  EXPECT_TRUE(selects("tag:site"));
  EXPECT_TRUE(selects("tag:s*"));
  EXPECT_FALSE(selects("tag:gw-7"));
}

TEST(GatewayQuery, NamesHaveWildcardsAndNumberRanges) {
  EXPECT_TRUE(selects("gw-*"));
  EXPECT_TRUE(selects("*"));
  EXPECT_TRUE(selects("g?-?"));
  EXPECT_TRUE(selects("gw-[1-20]"));
  EXPECT_TRUE(selects("gw-[1,3,7]"));
  EXPECT_TRUE(selects("gw-[1-3, 5-7]"));
  EXPECT_FALSE(selects("gw-[01-20]"));
  EXPECT_FALSE(selects("gw-[8-20]"));
  Device device = gatewayDevice();
  device.name = "gw-007a12";
  EXPECT_TRUE(selects("gw-[001-020]a[1-20]", device));
  EXPECT_TRUE(selects("*7a[12]", device));
  EXPECT_TRUE(selects("gw-[001-999]*[2]", device));
  EXPECT_FALSE(selects("gw-[1-999]a12", device));
}

TEST(GatewayQuery, AQuestionMarkIsOneCharacterOfUtf8) {
  Device device = gatewayDevice();
  device.tags["town"] = "K\xc3\xb6ln";
  EXPECT_TRUE(selects("town=K?ln", device));
  EXPECT_FALSE(selects("town=K??ln", device));
  EXPECT_TRUE(selects("town=K\xc3\xb6*", device));
}

TEST(GatewayQuery, TagsAreComparedWithPatterns) {
  EXPECT_TRUE(selects("site=berlin"));
  EXPECT_TRUE(selects("site=b*"));
  EXPECT_FALSE(selects("site=bonn"));
  EXPECT_TRUE(selects("site!=bonn"));
  EXPECT_FALSE(selects("site!=berlin"));
  EXPECT_TRUE(selects("color!=red"));  // without the tag too
  EXPECT_FALSE(selects("color=*"));
  EXPECT_TRUE(selects("path=a*"));  // a slash is an ordinary character
  EXPECT_FALSE(selects("site="));
  EXPECT_TRUE(selects("ring=[1-3]"));
}

TEST(GatewayQuery, TagsOfRulesCountOnlyWhereTheyMay) {
  const Query::Context people{kNow, {}, false};
  EXPECT_TRUE(selects("ring=2"));
  EXPECT_FALSE(selects("ring=2", gatewayDevice(), people));
  EXPECT_FALSE(selects("ring", gatewayDevice(), people));
  EXPECT_FALSE(selects("tag:r*", gatewayDevice(), people));
  EXPECT_TRUE(selects("site=berlin", gatewayDevice(), people));
}

TEST(GatewayQuery, PropertiesAreCompared) {
  EXPECT_TRUE(selects("type:controller"));
  EXPECT_FALSE(selects("type:server"));
  EXPECT_TRUE(selects("state:offline"));
  EXPECT_FALSE(selects("state:online"));
  EXPECT_TRUE(selects("kernel:5.10*"));
  EXPECT_FALSE(selects("kernel:5.10"));
  EXPECT_TRUE(selects("certificate:*.example"));
  EXPECT_TRUE(selects("hostid:gw-7"));
  EXPECT_TRUE(selects("agent:no"));
  EXPECT_FALSE(selects("agent:yes"));
}

TEST(GatewayQuery, AddressesAreNetworksOrPatterns) {
  EXPECT_TRUE(selects("address:10.1.2.3"));
  EXPECT_TRUE(selects("address:10.0.0.0/8"));
  EXPECT_TRUE(selects("address:10.9.9.9/8"));
  EXPECT_TRUE(selects("address:0.0.0.0/0"));
  EXPECT_FALSE(selects("address:10.2.0.0/16"));
  EXPECT_TRUE(selects("address:10.1.*"));
  EXPECT_TRUE(selects("address:10.1.2.[1-4]"));
  Device device = gatewayDevice();
  device.address.clear();
  EXPECT_FALSE(selects("address:0.0.0.0/0", device));
}

TEST(GatewayQuery, AnAddressWithAPortIsAName) {
  Device device = gatewayDevice();
  device.name = "10.1.2.3:4711";
  EXPECT_TRUE(selects("10.1.2.3:4711", device));
  EXPECT_TRUE(selects("10.1.*:*", device));
}

TEST(GatewayQuery, SeenIsTheTimeSinceTheLastSignOfLife) {
  EXPECT_TRUE(selects("seen<7d"));
  EXPECT_TRUE(selects("seen>1h"));
  EXPECT_FALSE(selects("seen>2h"));
  EXPECT_FALSE(selects("seen<120m"));
  EXPECT_TRUE(selects("seen<7201s"));
  EXPECT_TRUE(selects("seen<1w"));
  Device device = gatewayDevice();
  device.state = DeviceState::online;
  device.lastSeen = kNow - 1000 * kHour;
  EXPECT_TRUE(selects("seen<1s", device));
  device.state = DeviceState::offline;
  device.lastSeen = kNow + 1000 * kHour;  // the clock was set back: never a negative time
  EXPECT_TRUE(selects("seen<1s", device));
  EXPECT_FALSE(selects("seen>0s", device));
  EXPECT_FALSE(selects("seen<0s", device));
  device.lastSeen = 0;
  EXPECT_TRUE(selects("seen>100000w", device));
  EXPECT_FALSE(selects("seen<100000w", device));
}

TEST(GatewayQuery, SizesHaveUnitsOf1024) {
  EXPECT_TRUE(selects("free<100M"));
  EXPECT_FALSE(selects("free>50M"));
  EXPECT_FALSE(selects("free<50M"));
  EXPECT_TRUE(selects("free>51199K"));
  EXPECT_TRUE(selects("free<51201k"));
  EXPECT_TRUE(selects("free<51201KB"));
  EXPECT_TRUE(selects("free<51201KiB"));
  EXPECT_TRUE(selects("free<52428801"));
  EXPECT_FALSE(selects("free<52428800B"));
  EXPECT_TRUE(selects("free<1G"));
  EXPECT_TRUE(selects("free<8388607T"));
  Device device = gatewayDevice();
  device.freeBytes.reset();
  EXPECT_FALSE(selects("free<1T", device));
  EXPECT_FALSE(selects("free>0", device));
  device.freeBytes = ~std::uint64_t{0};
  EXPECT_TRUE(selects("free>1T", device));
}

TEST(GatewayQuery, ABlankBindsMoreThanAComma) {
  EXPECT_TRUE(selects("gw-7 site=berlin"));
  EXPECT_FALSE(selects("gw-7 site=bonn"));
  EXPECT_TRUE(selects("gw-7,gw-8"));
  EXPECT_TRUE(selects("gw-8 , gw-7"));
  EXPECT_TRUE(selects("gw-7, gw-8 site=bonn"));
  EXPECT_FALSE(selects("(gw-7,gw-8) site=bonn"));
  EXPECT_TRUE(selects("  ( ( gw-7 ) )  "));
  EXPECT_TRUE(selects("!gw-8"));
  EXPECT_FALSE(selects("!gw-7"));
  EXPECT_TRUE(selects("!!gw-7"));
  EXPECT_TRUE(selects("! (gw-8, gw-9) !site=bonn"));
  EXPECT_FALSE(selects("!gw-8 gw-9"));
}

TEST(GatewayQuery, QuotesAndBackslashesTakeTheMeaningOfCharacters) {
  Device device = gatewayDevice();
  device.tags["note"] = "a, (b) * [x]";
  EXPECT_TRUE(selects("note=\"a, (b) * [x]\"", device));
  EXPECT_TRUE(selects("note=a\\,\\ \\(b\\)\\ \\*\\ \\[x\\]", device));
  EXPECT_TRUE(selects("note=\"a, \"*", device));
  EXPECT_FALSE(selects("note=\"a*\"", device));
  device.tags["note"] = "say \"hi\"";
  EXPECT_TRUE(selects("note=\"say \\\"hi\\\"\"", device));
  device.name = "a=b";
  EXPECT_TRUE(selects("\"a=b\"", device));
}

TEST(GatewayQuery, GroupsAreOtherQueries) {
  runelgw::Groups groups;
  ASSERT_TRUE(groups.set("berlin", "site=berlin"));
  ASSERT_TRUE(groups.set("mine", "@berlin gw-*"));
  const Query::Context context{kNow, [&](const std::string& name) { return groups.find(name); },
                               true};
  EXPECT_TRUE(selects("@mine", gatewayDevice(), context));
  EXPECT_TRUE(selects("@all"));
  EXPECT_FALSE(selects("!@all"));
  EXPECT_FALSE(selects("@mine !@berlin", gatewayDevice(), context));
}

TEST(GatewayQuery, AnUnknownGroupSelectsNothingAlsoNegated) {
  EXPECT_FALSE(selects("@gone"));
  EXPECT_FALSE(selects("!@gone"));
  EXPECT_FALSE(selects("!!@gone"));
  EXPECT_FALSE(selects("!(@gone site=berlin)"));
  EXPECT_FALSE(selects("@all !@gone"));
  EXPECT_FALSE(selects("@gone gw-8"));
  EXPECT_TRUE(selects("@gone,gw-7"));
}

TEST(GatewayQuery, ErrorsTellTheirPositionAndAHint) {
  EXPECT_EQ("at character 1: empty query (@all selects every device)", errorOf(""));
  EXPECT_EQ("at character 1: empty query (@all selects every device)", errorOf("  "));
  EXPECT_EQ("at character 12: unknown state 'onlin' (did you mean 'online'?)",
            errorOf("gw-1 state:onlin"));
  EXPECT_EQ(
      "at character 7: unknown state 'x' (expected online, offline, waiting, denied, quarantined)",
      errorOf("state:x"));
  EXPECT_EQ("at character 6: unknown type 'contoller' (did you mean 'controller'?)",
            errorOf("type:contoller"));
  EXPECT_EQ("at character 1: unknown property 'kernl' (did you mean 'kernel'?)",
            errorOf("kernl:5*"));
  EXPECT_EQ("at character 1: unknown property 'seen' (use seen< or seen>)", errorOf("seen:7d"));
  EXPECT_EQ("at character 1: 'sen' cannot be compared (did you mean 'seen'?)", errorOf("sen<7d"));
  EXPECT_EQ("at character 2: 'x y' is not the name of a tag", errorOf("\"x y\"=1"));
}

TEST(GatewayQuery, MalformedValuesAreErrors) {
  EXPECT_EQ(
      "at character 6: '7' is not a time (expected a number and s, m, h, d or w, such as "
      "seen<7d)",
      errorOf("seen<7"));
  EXPECT_NE("", errorOf("seen<=7d"));
  EXPECT_NE("", errorOf("seen<d"));
  EXPECT_NE("", errorOf("seen<999999999999999w"));
  EXPECT_EQ(
      "at character 6: '1X' is not a size (expected a number and K, M, G or T, such as "
      "free<100M)",
      errorOf("free>1X"));
  EXPECT_NE("", errorOf("free<5BB"));
  EXPECT_NE("", errorOf("free<5bib"));
  EXPECT_NE("", errorOf("free<999999999999999T"));
  EXPECT_NE("", errorOf("free<"));
  EXPECT_EQ(
      "at character 9: '10.0' is not an IPv4 address or network (expected 192.0.2.1, "
      "192.0.2.0/24 or 192.0.2.*)",
      errorOf("address:10.0"));
  EXPECT_NE("", errorOf("address:10.0.0.0/33"));
  EXPECT_EQ("at character 7: expected yes or no after 'agent:'", errorOf("agent:maybe"));
  EXPECT_EQ("at character 6: a value is missing after 'type:'", errorOf("type: x"));
}

TEST(GatewayQuery, MalformedStructuresAreErrors) {
  EXPECT_EQ("at character 4: a term is missing here", errorOf("a, "));
  EXPECT_EQ("at character 3: a term is missing here", errorOf("a,,b"));
  EXPECT_EQ("at character 1: a term is missing here", errorOf(",a"));
  EXPECT_EQ("at character 2: a term is missing here", errorOf("!"));
  EXPECT_EQ("at character 3: '(' without ')'", errorOf("a (b"));
  EXPECT_EQ("at character 2: ')' without '('", errorOf("a)"));
  EXPECT_EQ("at character 2: a term is missing here", errorOf("()"));
  EXPECT_EQ("at character 2: expected a blank or a comma here", errorOf("a(b)"));
  EXPECT_EQ("at character 4: expected a blank or a comma here", errorOf("(a)b"));
  EXPECT_EQ("at character 3: unclosed double quote", errorOf("a=\"x"));
  EXPECT_EQ("at character 2: a character is missing after '\\'", errorOf("a\\"));
  EXPECT_EQ("at character 2: '[' without ']'", errorOf("a[1-3 b"));
  EXPECT_EQ("at character 2: ']' without '['", errorOf("a]"));
  EXPECT_EQ("at character 5: invalid range 'x': expected numbers such as 7 or 01-50",
            errorOf("a[1,x]"));
  EXPECT_EQ("at character 3: descending range '3-1'", errorOf("a[3-1]"));
  EXPECT_EQ("at character 1: the name of a tag is missing before '='", errorOf("=x"));
  EXPECT_EQ("at character 2: 'a b' is not the name of a tag", errorOf("\"a b\"=x"));
  EXPECT_EQ("at character 1: expected the name of a group after '@'", errorOf("@"));
  EXPECT_EQ("at character 1: expected the name of a group after '@'", errorOf("@a*"));
  EXPECT_EQ("at character 1: an empty name", errorOf("\"\""));
  EXPECT_EQ("at character 2: invalid UTF-8 or a control character", errorOf("a\x01"));
  EXPECT_EQ("at character 2: invalid UTF-8 or a control character", errorOf("a\xff"));
}

TEST(GatewayQuery, SizeAndDepthAreLimited) {
  EXPECT_EQ("at character 4097: the query is longer than 4096 bytes",
            errorOf(std::string(4097, 'a')));
  EXPECT_FALSE(selects(std::string(4096, 'a')));
  EXPECT_FALSE(selects(std::string(32, '!') + "gw-8"));
  EXPECT_EQ("at character 33: more than 32 levels of parentheses and negations",
            errorOf(std::string(33, '!') + "gw-8"));
  EXPECT_NE("", errorOf(std::string(33, '(') + "a" + std::string(33, ')')));
  std::string terms = "a";
  for (std::size_t count = 1; count < runelgw::kMostTerms; ++count) {
    terms += " a";
  }
  EXPECT_FALSE(selects(terms));
  EXPECT_NE("", errorOf(terms + " a"));
}

TEST(GatewayQuery, TellsTheGroupsAndTheSingleDevicesInIt) {
  const auto query = Query::parse("@a,@b @a,gw-[1-3],x,name:y,z*,!gw-[1-99999]");
  ASSERT_TRUE(query);
  EXPECT_EQ((std::vector<std::string>{"a", "b"}), query->groups());
  EXPECT_EQ(2u, query->uses("a"));
  EXPECT_EQ(0u, query->uses("c"));
  ASSERT_EQ(4u, query->named().size());
  EXPECT_EQ("gw-[1-3]", query->named()[0].text);
  EXPECT_EQ((std::vector<std::string>{"gw-1", "gw-2", "gw-3"}), query->named()[0].names);
  EXPECT_FALSE(query->named()[0].mayBeTag);
  EXPECT_EQ((std::vector<std::string>{"x"}), query->named()[1].names);
  EXPECT_TRUE(query->named()[1].mayBeTag);
  EXPECT_FALSE(query->named()[2].mayBeTag);
  EXPECT_TRUE(query->named()[3].names.empty());  // too many
  EXPECT_EQ(8u, query->terms());
  EXPECT_FALSE(query->dependsOnTime());
  EXPECT_TRUE(Query::parse("a,!(b seen<7d)")->dependsOnTime());
}

}  // namespace
