// SPDX-License-Identifier: Apache-2.0
// The failed devices, by reason.
#include "fleet/failure_list.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace runelctl {
namespace {

using Lines = std::vector<std::string>;

FailureList someFailures() {
  FailureList failures;
  failures.add(9, "gw-12", "exit status 3", false);
  failures.add(2, "hall", "Connection refused", true);
  for (std::size_t i = 3; i <= 7; ++i) {
    failures.add(i, "gw-0" + std::to_string(i), "exit status 3", false);
  }
  return failures;
}

TEST(FailureListTest, HasALineForEachReasonInTheOrderOfTheDevices) {
  EXPECT_EQ(someFailures().lines(false),
            (Lines{"hall: Connection refused", "gw-[03-07],gw-12: exit status 3"}));
}

TEST(FailureListTest, CanOmitDevicesThatWereNamed) {
  EXPECT_EQ(someFailures().lines(true), Lines{"gw-[03-07],gw-12: exit status 3"});
}

TEST(FailureListTest, NamesAllFailedDevices) {
  EXPECT_EQ(someFailures().names(), "hall,gw-[03-07],gw-12");
  EXPECT_EQ(FailureList().names(), "");
}

}  // namespace
}  // namespace runelctl
