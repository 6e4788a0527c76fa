// SPDX-License-Identifier: Apache-2.0
#include "gateway/fleet/text.h"

#include <string>

#include <gtest/gtest.h>

namespace {

using runelgw::firstUnprintable;
using runelgw::Network;
using runelgw::printable;

TEST(GatewayText, FindsWhatIsNotPrintableUtf8) {
  constexpr auto kNone = std::string::npos;
  EXPECT_EQ(kNone, firstUnprintable(""));
  EXPECT_EQ(kNone, firstUnprintable("a \xc3\xb6 \xe2\x82\xac \xf0\x9f\x98\x80 \xf4\x8f\xbf\xbf"));
  EXPECT_EQ(kNone, firstUnprintable("\xc2\xa0\xed\x9f\xbf\xe0\xa0\x80\xf0\x90\x80\x80"));
  EXPECT_EQ(1u, firstUnprintable("a\n"));
  EXPECT_EQ(kNone, firstUnprintable("a\n", "\n"));
  EXPECT_EQ(1u, firstUnprintable(std::string("a\0b", 3)));
  for (const char* wrong :
       {"a\x7f", "a\xff", "a\xc0\x80", "a\xc1\xbf", "a\x80", "a\xc3", "a\xe2\x82", "a\xe0\x9f\xbf",
        "a\xed\xa0\x80", "a\xf0\x8f\xbf\xbf", "a\xf4\x90\x80\x80", "a\xf5\x80\x80\x80", "a\xc3(",
        "a\xe2\x82(", "a\xc2\x80", "a\xc2\x9f"}) {
    EXPECT_EQ(1u, firstUnprintable(wrong)) << wrong;
  }
}

TEST(GatewayText, MakesDeviceTextsPrintable) {
  EXPECT_EQ("5.10.0", printable("5.10.0\nmore", 128));
  EXPECT_EQ("a?b??", printable("a\x1b"
                               "b\xc3\xb6",
                               128));
  EXPECT_EQ("abc", printable("abcdef", 3));
  EXPECT_EQ("", printable("", 3));
}

TEST(GatewayText, ParsesNetworks) {
  EXPECT_TRUE(Network::parse("10.0.0.0/8")->contains(0x0a123456));
  EXPECT_FALSE(Network::parse("10.0.0.0/8")->contains(0x0b000000));
  EXPECT_TRUE(Network::parse("10.1.2.3")->contains(0x0a010203));
  EXPECT_FALSE(Network::parse("10.1.2.3")->contains(0x0a010204));
  EXPECT_TRUE(Network::parse("1.2.3.4/0")->contains(0xffffffff));
  for (const char* wrong : {"", "10", "10.0.0.0/", "10.0.0.0/33", "10.0.0.0/1x", "10.0.0.0/-1",
                            "10.0.0.0/008", "10.0.0.256", "10.0.0.0 ", "::1"}) {
    EXPECT_FALSE(Network::parse(wrong)) << wrong;
  }
  EXPECT_FALSE(Network::parse(std::string("10.0.0.1\0x", 10)));
}

}  // namespace
