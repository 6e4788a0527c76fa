// SPDX-License-Identifier: Apache-2.0
#include "gateway/link/request_head.h"

#include <chrono>
#include <string>

#include <gtest/gtest.h>

#include "fakes/gateway/fake_device.h"

namespace runelgw {
namespace {

using runel::Milliseconds;
using test::requestOf;

TEST(RequestHeadTest, KnowsTheTasksOfTheTable) {
  const RequestHead read = headOf(requestOf({"read", "/a"}));
  EXPECT_TRUE(read.isRecord && read.known && read.repeatable && read.answered);
  EXPECT_EQ(read.task, "read");
  EXPECT_FALSE(read.isSlow());
  EXPECT_FALSE(headOf(requestOf({"append", "/a", "b"})).repeatable);
  EXPECT_FALSE(headOf(requestOf({"restart"})).answered);
  EXPECT_EQ(headOf(requestOf({"wait"})).extraTime, std::nullopt);
  const RequestHead odd = headOf(requestOf({"odd"}));
  EXPECT_TRUE(odd.isRecord && !odd.known && !odd.repeatable);
}

TEST(RequestHeadTest, AnExecMayBeSilentForItsLimit) {
  EXPECT_EQ(headOf(requestOf({"exec", "/bin/sh", "-c", "true"}, 10)).extraTime,
            Milliseconds(12000));
  EXPECT_EQ(headOf(requestOf({"exec", "a"}, 0)).extraTime, std::nullopt);
  EXPECT_EQ(headOf(requestOf({"exec", "a"}, -1)).extraTime, Milliseconds(0));
  EXPECT_EQ(headOf(requestOf({"exec", std::string(100000, 'x')}, 5)).extraTime, Milliseconds(7000));
  EXPECT_EQ(headOf(requestOf({"exec"}, 2147483647)).extraTime,
            Milliseconds(std::chrono::seconds(2147483649)));
}

TEST(RequestHeadTest, MalformedRecordsAreNoTasks) {
  for (const char* text : {"", "SlaveTask", "slavetask 1 4:read", "x"}) {
    EXPECT_FALSE(headOf(std::string(text)).isRecord) << text;
  }
  for (const char* text : {"SlaveTask ", "SlaveTask 0 0 0: 0 0 0 0 0", "SlaveTask x",
                           "SlaveTask 1 9:read 0", "SlaveTask 1 04:read 0"}) {
    const RequestHead head = headOf(std::string(text));
    EXPECT_TRUE(head.isRecord) << text;
    EXPECT_EQ(head.task, "") << text;
    EXPECT_FALSE(head.repeatable);
  }
  EXPECT_EQ(headOf(std::string("SlaveTask 9 4:exec 1:a 5")).extraTime, Milliseconds(0));
}

}  // namespace
}  // namespace runelgw
