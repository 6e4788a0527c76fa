// SPDX-License-Identifier: Apache-2.0
// Construction and serialization of records.
#include <cerrno>
#include <cstdint>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <zell/slave_proxy_local.h>
#include <zell/slave_task.h>

#include "fakes/zell/fake_zell.h"
#include "protocol/protocol.h"
#include "record_text.h"

namespace zell {
namespace {

using test::recordText;

using Args = std::vector<std::string>;

TEST(SlaveTaskTest, AnEmptyRecordHasNoArgumentsAndZeros) {
  EXPECT_EQ(recordText(SlaveTask()), "SlaveTask 0 0 0: 0 0 0 0 0");
}

TEST(SlaveTaskTest, WritesEveryFieldInItsPlace) {
  const SlaveTask task({"exec", "/bin/echo", "a b"}, -1, "out put", SlaveStatus::timeout,
                       WatchProcessState_t::timedOut, -1, 110, 15);
  EXPECT_EQ(recordText(task), "SlaveTask 3 4:exec 9:/bin/echo 3:a b -1 7:out put 3 4 -1 110 15");
}

TEST(SlaveTaskTest, WritesStringsUnchanged) {
  const std::string bytes("\0 :\x01\x02\xff\n", 7);
  const SlaveTask task({bytes}, 0, bytes, SlaveStatus::success, WatchProcessState_t::none, 0, 0, 0);
  EXPECT_EQ(recordText(task), "SlaveTask 1 7:" + bytes + " 0 7:" + bytes + " 0 0 0 0 0");
}

TEST(SlaveTaskTest, WritesTheSmallestAndTheLargestNumbers) {
  const SlaveTask task({}, INT32_MIN, "", SlaveStatus::error, WatchProcessState_t::none, INT32_MIN,
                       INT32_MAX, INT32_MAX);
  EXPECT_EQ(recordText(task), "SlaveTask 0 -2147483648 0: 4 0 -2147483648 2147483647 2147483647");
}

TEST(SlaveTaskTest, WritesLongAndShortStringsInOrder) {
  const std::string longOne(100000, 'x');
  const SlaveTask task({"a", longOne, "b"}, 7, longOne, SlaveStatus::success,
                       WatchProcessState_t::none, 0, 0, 0);
  EXPECT_EQ(recordText(task),
            "SlaveTask 3 1:a 100000:" + longOne + " 1:b 7 100000:" + longOne + " 0 0 0 0 0");
}

TEST(SlaveTaskTest, ThePartsAreTheTextAroundTheOutputWithoutACopy) {
  const SlaveTask task({"a", "b"}, 7, "the output", SlaveStatus::failure, WatchProcessState_t::none,
                       1, 2, 0);
  const SlaveTask::Parts parts = task.parts();
  EXPECT_EQ(parts.head, "SlaveTask 2 1:a 1:b 7 10:");
  EXPECT_EQ(parts.output, "the output");
  EXPECT_EQ(parts.output.data(), task.output().data());
  EXPECT_EQ(parts.tail, " 1 0 1 2 0");
}

TEST(SlaveTaskTest, KeepsItsConstructorArguments) {
  const SlaveTask task({"a"}, 5, "text", SlaveStatus::running, WatchProcessState_t::running, 1, 2,
                       3);
  EXPECT_EQ(task.args(), Args{"a"});
  EXPECT_EQ(task.execParam(), 5);
  EXPECT_EQ(task.output(), "text");
  EXPECT_EQ(task.status().status, SlaveStatus::running);
  EXPECT_EQ(task.status().state, WatchProcessState_t::running);
  EXPECT_EQ(task.status().result, 1);
  EXPECT_EQ(task.status().error, 2);
  EXPECT_EQ(task.status().signal, 3);
}

TEST(SlaveTaskTest, AReplyWithoutAProxyIsASuccess) {
  EXPECT_EQ(recordText(SlaveTask("text", nullptr)), "SlaveTask 0 0 4:text 0 0 0 0 0");
}

TEST(SlaveTaskTest, AReplyCarriesTheProxysResultStatus) {
  test::FakeDevice::instance().reset();
  test::FakeDevice::instance().failures["unlink"] = ENOENT;
  SlaveProxyLocal proxy;
  EXPECT_FALSE(proxy.unlink("/nothing"));
  EXPECT_EQ(recordText(SlaveTask("", &proxy)), "SlaveTask 0 0 0: 1 0 1 2 0");
}

TEST(SlaveTaskTest, AReplyOfTheLongestTextIsKept) {
  const SlaveTask task(std::string(kMaxReplyText, 'x'), nullptr);
  EXPECT_EQ(task.output().size(), 268431360u);
  EXPECT_EQ(task.status().error, 0);
}

TEST(SlaveTaskTest, AReplyThatIsTooLongBecomesAnEmptyOneWithAnError) {
  const SlaveTask task(std::string(kMaxReplyText + 1, 'x'), nullptr);
  EXPECT_EQ(recordText(task), "SlaveTask 0 0 0: 1 0 1 27 0");
}

TEST(SlaveTaskTest, ARecordIsRecognizedByItsNameAndABlank) {
  EXPECT_TRUE(SlaveTask::isA("SlaveTask "));
  EXPECT_TRUE(SlaveTask::isA("SlaveTask 0 0 0: 0 0 0 0 0"));
  EXPECT_TRUE(SlaveTask::isA("SlaveTask whatever follows"));
}

TEST(SlaveTaskTest, OtherTextsAreNotRecords) {
  for (const char* text : {"", "S", "SlaveTask", "slaveTask ", "SlaveTasks ", " SlaveTask ",
                           "SlaveTask\t0", "SlaveTask\n", "SlaveTas ", "XlaveTask "}) {
    EXPECT_FALSE(SlaveTask::isA(text)) << text;
  }
}

}  // namespace
}  // namespace zell
