// SPDX-License-Identifier: Apache-2.0
// The devices that the master allows.
#include "client/master/access_list.h"

#include <string>

#include <gtest/gtest.h>

namespace runel {
namespace {

constexpr std::uint32_t at(std::uint32_t a, std::uint32_t b, std::uint32_t c, std::uint32_t d) {
  return (a << 24U) | (b << 16U) | (c << 8U) | d;
}

TEST(AccessListTest, AllowsAllDevicesWhenEmpty) {
  const AccessList list;
  EXPECT_TRUE(list.allowsAddress(at(1, 2, 3, 4)));
  EXPECT_TRUE(list.allowsHostid("any"));
  EXPECT_TRUE(list.allowsHostid(""));
}

TEST(AccessListTest, AllowsListedAddressesAndNetworks) {
  AccessList list;
  ASSERT_TRUE(list.addAddresses("10.1.2.3,192.168.4.77/24"));
  EXPECT_TRUE(list.allowsAddress(at(10, 1, 2, 3)));
  EXPECT_FALSE(list.allowsAddress(at(10, 1, 2, 4)));
  EXPECT_TRUE(list.allowsAddress(at(192, 168, 4, 0)));
  EXPECT_TRUE(list.allowsAddress(at(192, 168, 4, 255)));
  EXPECT_FALSE(list.allowsAddress(at(192, 168, 5, 0)));
  EXPECT_TRUE(list.allowsHostid("any"));
}

TEST(AccessListTest, SupportsNetworksOfAllSizes) {
  AccessList all;
  ASSERT_TRUE(all.addAddresses("9.9.9.9/0"));
  EXPECT_TRUE(all.allowsAddress(at(255, 255, 255, 255)));
  AccessList one;
  ASSERT_TRUE(one.addAddresses("9.9.9.9/32"));
  EXPECT_TRUE(one.allowsAddress(at(9, 9, 9, 9)));
  EXPECT_FALSE(one.allowsAddress(at(9, 9, 9, 8)));
}

TEST(AccessListTest, RejectsInvalidAddresses) {
  for (const char* text : {"", "1.2.3", "1.2.3.4/", "1.2.3.4/33", "1.2.3.4/x", "1.2.3.4/-1", "name",
                           "1.2.3.4,", "1.2.3.4,,5.6.7.8", "1.2.3.4 "}) {
    AccessList list;
    EXPECT_FALSE(list.addAddresses(text)) << text;
  }
}

TEST(AccessListTest, AllowsListedHostids) {
  AccessList list;
  ASSERT_TRUE(list.addHostids("one,two"));
  EXPECT_TRUE(list.allowsHostid("two"));
  EXPECT_FALSE(list.allowsHostid("three"));
  EXPECT_FALSE(list.allowsHostid(""));
}

TEST(AccessListTest, RejectsInvalidHostids) {
  for (const char* text : {"", "a b", "a,", "a,,b", "\x1b[2J"}) {
    AccessList list;
    EXPECT_FALSE(list.addHostids(text)) << text;
  }
}

TEST(UsableNameTest, IsShortAndPlain) {
  EXPECT_TRUE(usableName("0a1B.c-d_e"));
  EXPECT_TRUE(usableName(std::string(64, 'x')));
  EXPECT_FALSE(usableName(std::string(65, 'x')));
  EXPECT_FALSE(usableName(""));
  EXPECT_FALSE(usableName("a/b"));
  EXPECT_FALSE(usableName(std::string("a\0b", 3)));
}

}  // namespace
}  // namespace runel
