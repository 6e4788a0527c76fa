// SPDX-License-Identifier: Apache-2.0
#include <string>

#include "gateway/api/task_json.h"
#include "unit/gateway/api/fixture.h"

namespace runelgw {
namespace {

class TaskRoutesTest : public ApiTest {
 protected:
  TaskRoutesTest() { device_ = connect("gw-1"); }

  // Runs a task and answers it.
  Got run(const Json& body, Answer answer, const std::string& token = "") {
    const auto exchange =
        ask("POST", "/v1/devices/gw-1/tasks", token.empty() ? admin_ : token, body.dump());
    if (!router_.sent.empty()) {
      router_.answer(std::move(answer));
      store_.run();
    }
    return got(exchange);
  }

  // The record that a task becomes.
  std::string recordOf(const Json& body) {
    const auto exchange = ask("POST", "/v1/devices/gw-1/tasks", admin_, body.dump());
    if (router_.sent.empty()) {
      return "refused: " + got(exchange).problem();
    }
    std::string record = router_.sent.front().call.request.bytes();
    router_.answer(answered(""));
    return record;
  }

  DeviceId device_ = 0;
};

TEST_F(TaskRoutesTest, BecomesTheRecordOfTheTask) {
  EXPECT_EQ(recordOf({{"task", "hostid"}}), "SlaveTask 1 6:hostid 0 0: 0 0 0 0 0");
  EXPECT_EQ(recordOf({{"task", "exec"}, {"arguments", {"/bin/sh", "-c", "a b"}}, {"limit_s", 9}}),
            "SlaveTask 4 4:exec 7:/bin/sh 2:-c 3:a b 9 0: 0 0 0 0 0");
  EXPECT_EQ(recordOf({{"task", "write"}, {"arguments", {"/f"}}, {"content", {{"base64", "AP8="}}}}),
            std::string("SlaveTask 3 5:write 2:/f 2:\0\xff 0 0: 0 0 0 0 0", 44));
  EXPECT_EQ(recordOf({{"task", "read"}, {"arguments", {{{"base64", "/w=="}}}}}),
            "SlaveTask 2 4:read 1:\xff 0 0: 0 0 0 0 0");
}

TEST_F(TaskRoutesTest, AnswersWithTheReplyOfTheDevice) {
  const Got answer = run({{"task", "exec"}, {"arguments", {"/bin/false"}}, {"limit_s", 5}},
                         answered("some \xff bytes", "1 2 3 0 0"));
  EXPECT_EQ(answer.status, 200U);
  EXPECT_EQ(answer.json["outcome"], "answered");
  EXPECT_EQ(answer.json["reason"], nullptr);
  EXPECT_EQ(answer.json["reply"]["status"], "failure");
  EXPECT_EQ(answer.json["reply"]["state"], "exited");
  EXPECT_EQ(answer.json["reply"]["result"], 3);
  EXPECT_EQ(answer.json["reply"]["output"]["base64"], "c29tZSD/IGJ5dGVz");
  EXPECT_EQ(answer.json["reply"]["output_bytes"], 12);
  EXPECT_EQ(answer.json["reply"]["truncated"], false);
}

TEST_F(TaskRoutesTest, TellsExactlyWhetherItRan) {
  const Got notRun =
      run({{"task", "reboot"}}, {Outcome::notRun, Reason::offline, "not connected", {}});
  EXPECT_EQ(notRun.json["outcome"], "not run");
  EXPECT_EQ(notRun.json["reason"], "offline");
  EXPECT_EQ(notRun.json["reply"], nullptr);
  EXPECT_EQ(store_.audit.back().outcome, "not run (offline)");
  const Got unknown =
      run({{"task", "reboot"}}, {Outcome::unknown, Reason::lost, "it was lost", {}});
  EXPECT_EQ(unknown.json["outcome"], "unknown");
  EXPECT_EQ(unknown.json["reason"], "lost");
  EXPECT_EQ(unknown.json["text"], "it was lost");
}

TEST_F(TaskRoutesTest, RefusesWhatTheGatewayDoesNotPassOnWithAHint) {
  for (const Json& body :
       {Json({{"task", "kill"}}), Json({{"task", "wait"}}), Json({{"task", "format"}}),
        Json({{"task", "exec"}, {"arguments", {"/bin/true"}}})}) {
    const Got answer = run(body, answered(""));
    EXPECT_EQ(answer.status, 422U) << body;
    EXPECT_EQ(answer.problem(), "refused-task");
  }
  EXPECT_NE(run({{"task", "kill"}}, answered("")).json["hint"].get<std::string>().find("job"),
            std::string::npos);
  for (const int limit : {0, -1, 86401}) {
    EXPECT_EQ(
        run({{"task", "exec"}, {"arguments", {"/x"}}, {"limit_s", limit}}, answered("")).status,
        400U);
  }
}

TEST_F(TaskRoutesTest, RefusesWrongArguments) {
  for (const Json& body : {
           Json({{"task", "stat"}}),
           Json({{"task", "write"}, {"arguments", {"/f"}}}),
           Json({{"task", "exec"}, {"limit_s", 1}}),
           Json({{"task", "stat"}, {"arguments", "/f"}}),
           Json({{"task", "stat"}, {"arguments", {1}}}),
           Json({{"task", "stat"}, {"arguments", {"/f"}}, {"content", "x"}}),
           Json({{"task", "stat"}, {"arguments", {"/f"}}, {"limit_s", 4}}),
           Json({{"task", "stat"}, {"arguments", {"/f"}}, {"deadline_ms", 0}}),
           Json({{"task", "write"}, {"arguments", {"/f"}}, {"content", {{"base64", "!"}}}}),
           Json({{"task", 1}}),
           Json({{"arguments", {"/f"}}}),
       }) {
    const Got answer = run(body, answered(""));
    EXPECT_EQ(answer.problem(), "malformed-request") << body;
    EXPECT_TRUE(answer.json.contains("pointer")) << body;
  }
}

TEST_F(TaskRoutesTest, AViewerOnlyLooks) {
  EXPECT_EQ(run({{"task", "fileexists"}, {"arguments", {"/f"}}}, answered(""), viewer_).status,
            200U);
  for (const Json& body :
       {Json({{"task", "read"}, {"arguments", {"/f"}}}),
        Json({{"task", "readdir"}, {"arguments", {"/f"}}}),
        Json({{"task", "write"}, {"arguments", {"/f", "x"}}}),
        Json({{"task", "exec"}, {"arguments", {"/f"}}, {"limit_s", 1}}), Json({{"task", "reboot"}}),
        Json({{"task", "changeleds"}, {"arguments", {"1", "1"}}})}) {
    const Got answer = run(body, answered(""), viewer_);
    EXPECT_EQ(answer.status, 403U) << body;
    EXPECT_EQ(answer.problem(), "forbidden");
  }
  EXPECT_TRUE(router_.sent.empty());
}

TEST_F(TaskRoutesTest, ATokenMayBeLimitedToKinds) {
  const std::string token = makeToken("leds", Role::deviceOperator, {}, {"led"});
  EXPECT_EQ(run({{"task", "blinkleds"}, {"arguments", {"fast"}}}, answered(""), token).status,
            200U);
  EXPECT_EQ(run({{"task", "hostid"}}, answered(""), token).status, 403U);
}

TEST_F(TaskRoutesTest, RecordsChangesAndNothingElse) {
  const std::size_t before = store_.audit.size();
  run({{"task", "read"}, {"arguments", {"/f"}}}, answered("x"));
  run({{"task", "stat"}, {"arguments", {"/f"}}}, answered("x"), viewer_);
  EXPECT_EQ(store_.audit.size(), before);
  run({{"task", "write"}, {"arguments", {"/etc/x"}}, {"content", "private"}}, answered(""));
  ASSERT_EQ(store_.audit.size(), before + 1);
  EXPECT_EQ(store_.audit.back().what, "runTask: write /etc/x");
  EXPECT_EQ(store_.audit.back().devices, "gw-1");
  EXPECT_EQ(store_.audit.back().outcome, "answered: success");
  run({{"task", "write"}, {"arguments", {"/etc/x"}}, {"content", "private"}}, answered(""),
      viewer_);
  EXPECT_EQ(store_.audit.back().outcome, "refused (forbidden)");
}

TEST_F(TaskRoutesTest, TheCallHasItsDeadlineAndLabel) {
  ask("POST", "/v1/devices/gw-1/tasks", operator_, R"({"task":"hostid"})");
  ask("POST", "/v1/devices/gw-1/tasks", operator_,
      R"({"task":"exec","arguments":["x"],"limit_s":60})");
  ask("POST", "/v1/devices/gw-1/tasks", operator_, R"({"task":"hostid","deadline_ms":500})");
  ASSERT_EQ(router_.sent.size(), 3U);
  EXPECT_EQ(router_.sent[0].call.deadline, steady_ + std::chrono::seconds(30));
  EXPECT_EQ(router_.sent[1].call.deadline, steady_ + std::chrono::seconds(90));
  EXPECT_EQ(router_.sent[2].call.deadline, steady_ + std::chrono::milliseconds(500));
  EXPECT_EQ(router_.sent[0].call.label, "token operator");
  EXPECT_EQ(router_.sent[0].call.device, device_);
}

TEST_F(TaskRoutesTest, CutsLongOutputsAndSaysSo) {
  settings_.outputBytes = 5;
  restart();
  connect("gw-1");
  const Got answer = run({{"task", "read"}, {"arguments", {"/f"}}}, answered("1234\xc3\xa4 56"));
  EXPECT_EQ(answer.json["reply"]["output"], "1234");
  EXPECT_EQ(answer.json["reply"]["output_bytes"], 9);
  EXPECT_EQ(answer.json["reply"]["truncated"], true);
}

TEST_F(TaskRoutesTest, AMalformedReplyIsLeftOut) {
  for (const std::string& record :
       {std::string(), std::string("SlaveTask"), std::string("SlaveTask 0 0 5:abc 0 0 0 0 0"),
        std::string("SlaveTask 0 0 3:abc 0 0 0 0"), std::string("SlaveTask 0 0 3:abc 0 0 0 0 0 0"),
        std::string("SlaveTask 1 0 3:abc 0 0 0 0 0"), std::string("SlaveTask 0 0 3abc 0 0 0 0 0"),
        std::string("SlaveTask 0 0 99999999999999999999:abc 0 0 0 0 0")}) {
    EXPECT_FALSE(parseReply(Payload(record), 100)) << record;
    const Got answer =
        run({{"task", "hostid"}}, {Outcome::answered, Reason::none, "", Payload(record)});
    EXPECT_EQ(answer.json["outcome"], "answered");
    EXPECT_EQ(answer.json["reply"], nullptr);
  }
  ASSERT_TRUE(parseReply(Payload(std::string("SlaveTask 0 0 3:abc 3 4 -1 110 9")), 100));
}

TEST_F(TaskRoutesTest, TheNumbersOfAReplyComeBack) {
  TaskReply reply;
  reply.status = 3;
  reply.state = 4;
  reply.result = -1;
  reply.number = 110;
  reply.signal = 9;
  reply.outputSize = 12345678901;
  const auto back = replyFromNumbers(numbersOf(reply));
  ASSERT_TRUE(back);
  EXPECT_EQ(back->result, -1);
  EXPECT_EQ(back->signal, 9);
  EXPECT_EQ(back->outputSize, 12345678901U);
  EXPECT_FALSE(replyFromNumbers("the device is away"));
  EXPECT_FALSE(replyFromNumbers(""));
}

TEST_F(TaskRoutesTest, AClauseGoesToTheAgent) {
  EXPECT_EQ(post("/v1/devices/gw-1/clauses", {{"text", "<a/>"}}).status, 202U);
  ASSERT_EQ(router_.clauses.size(), 1U);
  EXPECT_EQ(router_.clauses[0], std::make_pair(device_, std::string("<a/>")));
  EXPECT_EQ(store_.audit.back().what, "sendClause");
  EXPECT_EQ(post("/v1/devices/gw-1/clauses", {{"text", "<a/>"}}, viewer_).status, 403U);
  router_.clauseError = runel::Error(runel::Kind::local, runel::Cause::other, "no agent");
  EXPECT_EQ(post("/v1/devices/gw-1/clauses", {{"text", "<a/>"}}).status, 409U);
}

}  // namespace
}  // namespace runelgw
