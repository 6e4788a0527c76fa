// SPDX-License-Identifier: Apache-2.0
#include <runel/address.h>

#include <string>

#include <gtest/gtest.h>

namespace runel {
namespace {

TEST(AddressTest, HasTheDevicePortByDefault) {
  EXPECT_EQ(Address::parse("10.0.0.1")->port(), 5111);
  EXPECT_EQ(Address::parse("device-1.example:80")->port(), 80);
  EXPECT_EQ(Address::parse("device-1.example:80")->host(), "device-1.example");
}

TEST(AddressTest, WithAnAtSignIsBehindTheMaster) {
  EXPECT_EQ(Address::parse("@abc")->through(), "abc");
  EXPECT_TRUE(Address::parse("@abc")->isBehindMaster());
  EXPECT_FALSE(Address::parse("abc")->isBehindMaster());
}

TEST(AddressTest, RejectsInvalidText) {
  for (const char* text : {"", "@", "a b", "a:", "a:0", "a:65536", "a:1x", ":1", "a/b", "::1"}) {
    const Result<Address> address = Address::parse(text);
    ASSERT_FALSE(address) << text;
    EXPECT_EQ(address.error().kind(), Kind::local) << text;
    EXPECT_NE(address.error().text(), "") << text;
  }
}

TEST(AddressTest, IsWrittenAsItIsParsed) {
  for (const char* text : {"10.0.0.1:5111", "a:80", "@name"}) {
    EXPECT_EQ(Address::parse(text)->text(), text);
  }
}

TEST(AddressTest, ComparesDevicesAndNotNames) {
  EXPECT_TRUE(Address("a") == Address("a").named("x"));
  EXPECT_FALSE(Address("a") == Address("a", 80));
  EXPECT_FALSE(Address("a") == Address::behindMaster("a"));
}

}  // namespace
}  // namespace runel
