// SPDX-License-Identifier: Apache-2.0
// Rules for all tasks and for unknown tasks.
#include <cerrno>
#include <cstddef>
#include <iterator>
#include <ostream>
#include <string>
#include <vector>

#include <syslog.h>

#include "protocol/protocol.h"
#include "protocol/task_table.h"
#include "unit/tasks/task_case.h"

namespace zell::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

using Strings = std::vector<std::string>;

// A task with its arguments.
struct Task {
  Strings request;
  std::string call;       // the call of the device
  std::string operation;  // the operation's name, to make it fail
};

std::ostream& operator<<(std::ostream& out, const Task& task) {
  return out << task.request.front();
}

const std::vector<Task>& allTasks() {
  static const std::vector<Task> kAll = {
      {{"access", "/a", "4"}, "access /a 4", "access"},
      {{"append", "/a", "data"}, "appendFile /a data", "appendFile"},
      {{"blinkleds", "slow"}, "setLeds 1 1", "setLeds"},
      {{"changeleds", "1", "0"}, "setLeds 1 0", "setLeds"},
      {{"chmodx", "/a"}, "chmodx /a", "chmodx"},
      {{"devicetype"}, "deviceType", "deviceType"},
      {{"exec"}, "exec  | 0", "exec"},
      {{"fileexists", "/a"}, "fileExists /a", "fileExists"},
      {{"freeblocks", "/a"}, "freeBlocks /a", "freeBlocks"},
      {{"hostid"}, "hostId", "hostId"},
      {{"kill"}, "kill", "kill"},
      {{"lstat", "/a"}, "lstat /a", "lstat"},
      {{"processrunning", "init"}, "processRunning init", "processRunning"},
      {{"read", "/a"}, "readFile /a", "readFile"},
      {{"readdir", "/a"}, "readDir /a", "readDir"},
      {{"realpath", "/a"}, "realPath /a", "realPath"},
      {{"reboot"}, "reboot", "reboot"},
      {{"rename", "/a", "/b"}, "rename /a /b", "rename"},
      {{"restart"}, "", ""},
      {{"stat", "/a"}, "stat /a", "stat"},
      {{"unlink", "/a"}, "unlink /a", "unlink"},
      {{"updateumstate", "key", "state"}, "storeUmState key state", "storeUmState"},
      {{"wait"}, "wait", "wait"},
      {{"walktree", "/a"}, "walkTree /a", "walkTree"},
      {{"write", "/a", "data"}, "writeFile /a data", "writeFile"},
  };
  return kAll;
}

class EveryTaskTest : public TaskCase, public ::testing::WithParamInterface<Task> {
 protected:
  EveryTaskTest() {
    device.files["/a"] = "content";
    device.directories["/a"] = {"x"};
    device.processes = {"init"};
  }

  static Strings expectedCalls() {
    return GetParam().call.empty() ? Strings() : Strings{GetParam().call};
  }
  [[nodiscard]] bool answersItself() const {
    return GetParam().request[0] == "reboot" || GetParam().request[0] == "restart";
  }
};

INSTANTIATE_TEST_SUITE_P(Tasks, EveryTaskTest, ::testing::ValuesIn(allTasks()),
                         [](const auto& task) { return task.param.request.front(); });

TEST(TaskTableTest, IsTestedWithAllItsTasks) {
  ASSERT_EQ(allTasks().size(), std::size(kTasks));
  for (std::size_t i = 0; i < std::size(kTasks); ++i) {
    EXPECT_EQ(allTasks()[i].request.front(), kTasks[i].name);
  }
}

TEST_P(EveryTaskTest, RunsOneOperationAndLogsNothing) {
  (void)run(GetParam().request);
  EXPECT_EQ(device.calls, expectedCalls());
  EXPECT_THAT(log.entries(), IsEmpty());
}

TEST_P(EveryTaskTest, AnswersWithoutArgumentsAndExecParam) {
  if (answersItself()) {
    EXPECT_EQ(run(GetParam().request, 5), "none");
    return;
  }
  const std::string answer = run(GetParam().request, 5);
  EXPECT_EQ(answer.compare(0, 14, "SlaveTask 0 0 "), 0) << answer;
}

TEST_P(EveryTaskTest, CarriesTheOperationsFailure) {
  if (answersItself()) {
    return;  // their reply has no separate status, see below
  }
  device.failures[GetParam().operation] = EIO;
  const std::string answer = run(GetParam().request);
  const std::string fields = " 1 0 1 5 0";
  ASSERT_GT(answer.size(), fields.size());
  EXPECT_EQ(answer.substr(answer.size() - fields.size()), fields);
  EXPECT_THAT(log.entries(), IsEmpty());
}

TEST_P(EveryTaskTest, RefusesARequestWithTooFewArguments) {
  for (std::size_t count = 1; count < GetParam().request.size(); ++count) {
    const Strings tooFew(GetParam().request.begin(),
                         GetParam().request.begin() + static_cast<std::ptrdiff_t>(count));
    log.clear();
    const std::string complaint = "too few arguments: " + GetParam().request[0];
    EXPECT_EQ(run(tooFew), replyRecord(ownPrefix() + complaint, "4 0 1 22 0"));
    EXPECT_THAT(log.entries(), ElementsAre(LogEntry{LOG_ERR, "(PID) " + complaint}));
  }
  EXPECT_THAT(device.calls, IsEmpty());
  EXPECT_FALSE(slave.stopRequested());
}

TEST_P(EveryTaskTest, IgnoresArgumentsThatItDoesNotRead) {
  Strings more = GetParam().request;
  more.insert(more.end(), {"", "surplus", std::string("\0", 1)});
  (void)run(more);
  if (GetParam().request[0] != "exec") {  // reads all arguments
    EXPECT_EQ(device.calls, expectedCalls());
  }
  EXPECT_THAT(log.entries(), IsEmpty());
}

TEST_P(EveryTaskTest, IsKnownOnlyByItsExactName) {
  const std::string& name = GetParam().request[0];
  std::string capital = name;
  capital[0] = static_cast<char>(capital[0] - 'a' + 'A');
  for (const std::string& other :
       {capital, " " + name, name + " ", name + "x", name.substr(0, name.size() - 1),
        name + std::string(1, '\0'), name + "\n", "\t" + name}) {
    Strings request = GetParam().request;
    request[0] = other;
    EXPECT_EQ(run(request), replyRecord(ownPrefix() + "unknown cmd: " + other, "4 0 1 71 0"));
  }
  EXPECT_THAT(device.calls, IsEmpty());
  EXPECT_FALSE(slave.stopRequested());
}

class UnknownTaskTest : public TaskCase {};

TEST_F(UnknownTaskTest, IsLoggedAndAnsweredWithTheSameText) {
  EXPECT_EQ(run({"frobnicate", "a", "b"}, 7),
            replyRecord(ownPrefix() + "unknown cmd: frobnicate", "4 0 1 71 0"));
  EXPECT_THAT(log.entries(), ElementsAre(LogEntry{LOG_ERR, "(PID) unknown cmd: frobnicate"}));
}

TEST_F(UnknownTaskTest, IsAnEmptyName) {
  EXPECT_EQ(run({""}), replyRecord(ownPrefix() + "unknown cmd: ", "4 0 1 71 0"));
}

TEST_F(UnknownTaskTest, MayHaveAnyBytesInItsName) {
  const std::string name("a%s%n\0\x01\x02\xff", 9);
  EXPECT_EQ(run({name}), replyRecord(ownPrefix() + "unknown cmd: " + name, "4 0 1 71 0"));
  EXPECT_THAT(log.texts(), ElementsAre("(PID) unknown cmd: a%s%n"));
}

// The text has 256 MiB: the test checks the reply in parts, because each copy takes a second.
TEST_F(UnknownTaskTest, IsAnsweredWithoutItsNameWhenTooLongForAReply) {
  std::vector<std::string> name(1);
  name[0].assign(kMaxReplyText - (ownPrefix() + "unknown cmd: ").size(), 'x');
  const std::unique_ptr<SlaveTask> fitting = answerTo(name);
  EXPECT_EQ(fitting->output().size(), kMaxReplyText);
  EXPECT_EQ(fitting->output().back(), 'x');
  EXPECT_EQ(fitting->parts().tail, " 4 0 1 71 0");
  log.clear();
  name[0] += 'x';
  const std::unique_ptr<SlaveTask> refused = answerTo(name);
  EXPECT_EQ(refused->output(), "");
  EXPECT_EQ(refused->parts().tail, " 1 0 1 27 0");
  EXPECT_EQ(log.entries().size(), 1U);
}

TEST_F(UnknownTaskTest, DoesNotChangeTheStatusOfTheLastTask) {
  (void)run({"fileexists", "/none"});
  (void)run({"frobnicate"});
  (void)run({"reboot"});
  EXPECT_EQ(sockets.received(), reply("", "1 0 1 2 0"));
}

TEST_F(UnknownTaskTest, EmptyListHasTooFewArguments) {
  EXPECT_EQ(run({}), replyRecord(ownPrefix() + "too few arguments: ", "4 0 1 22 0"));
  EXPECT_THAT(log.entries(), ElementsAre(LogEntry{LOG_ERR, "(PID) too few arguments: "}));
}

}  // namespace
}  // namespace zell::test
