// SPDX-License-Identifier: Apache-2.0
// The connections of a master by name.
#include "client/master/device_index.h"

#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace runel {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

TEST(DeviceIndexTest, FindsAllConnectionsWithANameInTheirOrder) {
  DeviceIndex index;
  index.add("a", 3);
  index.add("a", 1);
  index.add("b", 2);
  EXPECT_THAT(index.find("a"), ElementsAre(1, 3));
  EXPECT_THAT(index.find("b"), ElementsAre(2));
  EXPECT_THAT(index.find("c"), IsEmpty());
}

TEST(DeviceIndexTest, ForgetsOneConnectionOfAName) {
  DeviceIndex index;
  index.add("a", 1);
  index.add("a", 2);
  index.remove("a", 1);
  EXPECT_THAT(index.find("a"), ElementsAre(2));
  index.remove("a", 2);
  EXPECT_THAT(index.find("a"), IsEmpty());
}

TEST(DeviceIndexTest, IgnoresEmptyRepeatedAndUnknownNames) {
  DeviceIndex index;
  index.add("", 1);
  EXPECT_THAT(index.find(""), IsEmpty());
  index.add("a", 1);
  index.add("a", 1);
  index.remove("b", 1);
  index.remove("a", 2);
  EXPECT_THAT(index.find("a"), ElementsAre(1));
  index.remove("a", 1);
  EXPECT_THAT(index.find("a"), IsEmpty());
}

}  // namespace
}  // namespace runel
