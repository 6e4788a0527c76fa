// SPDX-License-Identifier: Apache-2.0
#include "gateway/auth/rate_limit.h"

#include <chrono>
#include <string>

#include <gtest/gtest.h>

namespace runelgw {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

const runel::Clock::time_point kStart = runel::Clock::time_point() + std::chrono::hours(1);

TEST(TokenBucketTest, GivesTheBurstAndThenTheRate) {
  const Rate rate{2, 3};
  TokenBucket bucket;
  for (int round = 0; round < 3; ++round) {
    EXPECT_TRUE(bucket.take(rate, kStart));
  }
  EXPECT_FALSE(bucket.take(rate, kStart));
  EXPECT_FALSE(bucket.take(rate, kStart + milliseconds(499)));
  EXPECT_TRUE(bucket.take(rate, kStart + milliseconds(500)));
  EXPECT_FALSE(bucket.take(rate, kStart + milliseconds(501)));
  EXPECT_TRUE(bucket.take(rate, kStart + seconds(100)));
}

TEST(TokenBucketTest, TellsWhenToComeBack) {
  const Rate slow{0.1, 1};
  TokenBucket bucket;
  EXPECT_TRUE(bucket.take(slow, kStart));
  EXPECT_FALSE(bucket.take(slow, kStart));
  EXPECT_EQ(bucket.secondsLeft(slow), 10);
  EXPECT_FALSE(bucket.take(slow, kStart + milliseconds(9900)));
  EXPECT_EQ(bucket.secondsLeft(slow), 1);
  EXPECT_EQ(bucket.secondsLeft(Rate{0, 1}), 3600);
}

TEST(AddressLimitTest, CountsEachAddressApart) {
  AddressLimit limit(Rate{1, 1});
  EXPECT_TRUE(limit.take("192.0.2.1", kStart));
  EXPECT_FALSE(limit.take("192.0.2.1", kStart));
  EXPECT_TRUE(limit.take("192.0.2.2", kStart));
}

TEST(AddressLimitTest, ANetworkOfIpv6IsOneClient) {
  AddressLimit limit(Rate{1, 1});
  EXPECT_TRUE(limit.take("2001:db8:1:2::1", kStart));
  EXPECT_FALSE(limit.take("2001:db8:1:2:ffff::9", kStart));
  EXPECT_TRUE(limit.take("2001:db8:1:3::1", kStart));
  EXPECT_EQ(networkOf("::ffff:192.0.2.1"), "::ffff:192.0.2.1");
}

TEST(AddressLimitTest, RemembersBoundedlyManyAddressesAndStillLimitsTheOthers) {
  AddressLimit limit(Rate{0.001, 2}, 100);
  int allowed = 0;
  for (int address = 0; address < 1000; ++address) {
    allowed += limit.take("192.0.2." + std::to_string(address), kStart) ? 1 : 0;
  }
  EXPECT_EQ(limit.size(), 100U);
  EXPECT_EQ(allowed, 102);
}

TEST(AddressLimitTest, ForgetsAddressesThatAreQuiet) {
  AddressLimit limit(Rate{1, 2}, 10);
  for (int address = 0; address < 10; ++address) {
    EXPECT_TRUE(limit.take("192.0.2." + std::to_string(address), kStart));
  }
  EXPECT_TRUE(limit.take("198.51.100.1", kStart + seconds(5)));
  EXPECT_EQ(limit.size(), 1U);
}

}  // namespace
}  // namespace runelgw
