// SPDX-License-Identifier: Apache-2.0
#include <cerrno>
#include <string>

#include "unit/tasks/task_case.h"

namespace zell::test {
namespace {

using ::testing::ElementsAre;

class ProcessTasksTest : public TaskCase {};

TEST_F(ProcessTasksTest, ExecPassesTheProgramItsArgumentsAndTheExecParam) {
  device.programs["/bin/echo a b"].output = "a b\n";
  EXPECT_EQ(run({"exec", "/bin/echo", "a", "b"}, 5), replyRecord("a b\n", "0 2 0 0 0"));
  EXPECT_THAT(asked(), ElementsAre("exec /bin/echo a b | 5"));
}

TEST_F(ProcessTasksTest, ExecPassesAnyExecParamUnchanged) {
  for (const int param : {0, -1, 1, 2147483647, -2147483647 - 1}) {
    (void)run({"exec", "/bin/true"}, param);
    EXPECT_EQ(asked().back(), "exec /bin/true | " + std::to_string(param));
  }
}

TEST_F(ProcessTasksTest, ExecPassesArgumentsUnchanged) {
  (void)run({"exec", "/bin/sh", "-c", "exit 3; echo \"$HOME\"", ""});
  EXPECT_THAT(asked(), ElementsAre("exec /bin/sh -c exit 3; echo \"$HOME\"  | 0"));
}

TEST_F(ProcessTasksTest, ExecWithoutAProgramPassesAnEmptyList) {
  EXPECT_EQ(run({"exec"}), replyRecord("", "1 0 1 22 0"));
  EXPECT_THAT(asked(), ElementsAre("exec  | 0"));
  EXPECT_TRUE(log.entries().empty());
}

TEST_F(ProcessTasksTest, ExecAnswersTheOutputWithTheProgramsEnd) {
  device.programs["/bin/fail"] = {std::string("out\0err\n", 8),
                                  {SlaveStatus::failure, WatchProcessState_t::exited, 3, 0, 0}};
  EXPECT_EQ(run({"exec", "/bin/fail"}), replyRecord(std::string("out\0err\n", 8), "1 2 3 0 0"));
  device.programs["/bin/die"] = {"part",
                                 {SlaveStatus::failure, WatchProcessState_t::signalled, -1, 0, 11}};
  EXPECT_EQ(run({"exec", "/bin/die"}), replyRecord("part", "1 3 -1 0 11"));
  device.programs["/bin/slow"] = {
      "", {SlaveStatus::timeout, WatchProcessState_t::timedOut, -1, ETIMEDOUT, 15}};
  EXPECT_EQ(run({"exec", "/bin/slow"}, 1),
            replyRecord("", "3 4 -1 " + std::to_string(ETIMEDOUT) + " 15"));
}

TEST_F(ProcessTasksTest, ExecThatCannotStartHasNoOutput) {
  device.programs["/bin/echo"].output = "earlier";
  (void)run({"exec", "/bin/echo"});
  device.failures["exec"] = ENOENT;
  EXPECT_EQ(run({"exec", "/none"}), replyRecord("", "1 0 1 2 0"));
}

TEST_F(ProcessTasksTest, KillAndWaitActOnTheBackgroundProgram) {
  EXPECT_EQ(run({"exec", "/bin/sleep", "9"}, -1), replyRecord("", "2 1 0 0 0"));
  EXPECT_EQ(run({"kill"}), replyRecord("", "0 3 -1 0 15"));
  (void)run({"exec", "/bin/sleep", "9"}, -1);
  EXPECT_EQ(run({"wait"}), replyRecord("", "0 2 0 0 0"));
}

TEST_F(ProcessTasksTest, KillAndWaitWithoutAProgramFail) {
  EXPECT_EQ(run({"kill"}), replyRecord("", "1 0 1 3 0"));
  EXPECT_EQ(run({"wait"}), replyRecord("", "1 0 1 10 0"));
  EXPECT_THAT(asked(), ElementsAre("kill", "wait"));
}

TEST_F(ProcessTasksTest, ConnectionsShareNoProgram) {
  (void)run({"exec", "/bin/sleep", "9"}, -1);
  ByteCountSlave other(sockets.near());
  std::string packet = request({"kill"}) + request({"wait"});
  other.handleMessage(packet);
  EXPECT_EQ(sockets.received(), reply("", "1 0 1 3 0") + reply("", "1 0 1 10 0"));
  EXPECT_EQ(run({"kill"}), replyRecord("", "0 3 -1 0 15"));
}

TEST_F(ProcessTasksTest, ProcessRunningFailsWithoutSuchAProcess) {
  device.processes = {"init"};
  EXPECT_EQ(run({"processrunning", "init"}), replyRecord(""));
  EXPECT_EQ(run({"processrunning", "ini"}), replyRecord("", "1 0 1 3 0"));
}

}  // namespace
}  // namespace zell::test
