// SPDX-License-Identifier: Apache-2.0
#include "client/core/link_event.h"

#include <cerrno>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "client/core/exclusive_task.h"
#include "client/core/session.h"

namespace runel {
namespace {

using About = LinkEvent::About;

constexpr std::uint64_t kEventFrame = 10;

Error lost(Outcome outcome) {
  return Error(Kind::link, Cause::closed, "the gateway lost the device", ECONNRESET).with(outcome);
}

std::string answerOf(const std::string& output) {
  return "SlaveTask 0 0 " + std::to_string(output.size()) + ":" + output + " 0 0 0 0 0";
}

TEST(LinkEventTest, KeepsWhatItTells) {
  const auto event = LinkEvent::parse(LinkEvent{About::oldest, lost(Outcome::unknown)}.payload());
  ASSERT_TRUE(event);
  EXPECT_EQ(event->about, About::oldest);
  EXPECT_EQ(event->error.kind(), Kind::link);
  EXPECT_EQ(event->error.cause(), Cause::closed);
  EXPECT_EQ(event->error.outcome(), Outcome::unknown);
  EXPECT_EQ(event->error.number(), ECONNRESET);
  EXPECT_EQ(event->error.text(), "the gateway lost the device");
}

TEST(LinkEventTest, IsNoTaskRecord) {
  const std::string payload = LinkEvent{About::progress}.payload();
  EXPECT_TRUE(LinkEvent::mayBegin(payload.front()));
  EXPECT_FALSE(LinkEvent::mayBegin(answerOf("").front()));
  EXPECT_FALSE(Reply::decode(payload));
  EXPECT_FALSE(LinkEvent::parse(answerOf("output")));
}

TEST(LinkEventTest, RefusesWhatIsMalformed) {
  for (const std::string text : {"", "\x05", "\x05 ",
                                 "\x05"
                                 "0",
                                 "\x05"
                                 "0 0 0 0",
                                 "\x05"
                                 "9 0 0 0 0 text",
                                 "\x05"
                                 "0 9 0 0 0 text",
                                 "\x05"
                                 "0 0 99 0 0 text",
                                 "\x05"
                                 "0 0 0 3 0 text",
                                 "\x05"
                                 "-1 0 0 0 0 text",
                                 "\x05"
                                 "0 0 0 0 99999999999 text",
                                 "0 0 0 0 0 text"}) {
    EXPECT_FALSE(LinkEvent::parse(text)) << text;
  }
}

TEST(LinkEventTest, TellsAnErrorInOneLine) {
  const std::string line = errorLine(Error(Kind::local, Cause::refused, "first\nsecond", EPERM));
  EXPECT_EQ(line.find('\n'), std::string::npos);
  const auto error = parseErrorLine(line);
  ASSERT_TRUE(error);
  EXPECT_EQ(error->kind(), Kind::local);
  EXPECT_EQ(error->cause(), Cause::refused);
  EXPECT_EQ(error->number(), EPERM);
  EXPECT_EQ(error->text(), "first second");
  EXPECT_FALSE(parseErrorLine("ok"));
  EXPECT_FALSE(parseErrorLine("error no number"));
}

// Requests on a connection of a dialer.
class SessionWithEventsTest : public testing::Test {
 protected:
  void ask(const std::string& task) {
    session.add(
        Request({task}), [](const Reply&) {}, now);
    session.queued(end += kEventFrame);
  }
  std::optional<Error> tell(About about, Outcome outcome = Outcome::notSent) {
    return session.receive(LinkEvent{about, lost(outcome)}.payload(), now);
  }
  std::vector<Reply> completed() {
    std::vector<Reply> replies;
    while (auto next = session.nextCompletion()) {
      replies.push_back(next->reply);
    }
    return replies;
  }

  Session session{std::chrono::seconds(30), true};
  Session::Time now{std::chrono::seconds(1000)};
  std::uint64_t end = 0;
};

TEST_F(SessionWithEventsTest, FailsTheOldestRequestInPlaceOfItsAnswer) {
  ask("exec");
  ask("hostid");
  ask("append");
  session.progress(3 * kEventFrame, now);
  EXPECT_FALSE(tell(About::oldest, Outcome::unknown));
  EXPECT_FALSE(session.receive(answerOf("id"), now));
  EXPECT_FALSE(tell(About::oldest, Outcome::notSent));
  const std::vector<Reply> replies = completed();
  ASSERT_EQ(replies.size(), 3U);
  EXPECT_EQ(replies[0].error().outcome(), Outcome::unknown);
  EXPECT_EQ(replies[0].error().text(), "the gateway lost the device");
  EXPECT_EQ(replies[1].output(), "id");
  EXPECT_EQ(replies[2].error().outcome(), Outcome::notSent);
  EXPECT_EQ(session.sent(), 2U);          // the last one has not reached the device
  EXPECT_EQ(session.inDoubt(), 1U);       // the "exec"
  EXPECT_EQ(session.unrepeatable(), 1U);  // the "append" did not run
}

TEST_F(SessionWithEventsTest, FailsARequestThatIsSentInPart) {
  ask("write");
  ask("hostid");
  session.progress(1, now);
  EXPECT_FALSE(tell(About::oldest));
  session.progress(2 * kEventFrame, now);
  EXPECT_FALSE(session.receive(answerOf("id"), now));
  const std::vector<Reply> replies = completed();
  ASSERT_EQ(replies.size(), 2U);
  EXPECT_FALSE(replies[0].answered());
  EXPECT_EQ(replies[1].output(), "id");
}

TEST_F(SessionWithEventsTest, WaitsForTheEventOfARestart) {
  ask("restart");
  session.progress(kEventFrame, now);
  EXPECT_TRUE(completed().empty());  // it may still wait at the gateway
  EXPECT_FALSE(tell(About::sent));
  const std::vector<Reply> replies = completed();
  ASSERT_EQ(replies.size(), 1U);
  EXPECT_TRUE(replies[0].ok());
}

TEST_F(SessionWithEventsTest, TakesProgressForAMovedByte) {
  ask("read");
  session.progress(kEventFrame, now);
  now += std::chrono::seconds(29);
  EXPECT_FALSE(tell(About::progress));
  now += std::chrono::seconds(29);
  EXPECT_FALSE(session.expired(now));
  now += std::chrono::seconds(1);
  EXPECT_TRUE(session.expired(now));
}

TEST_F(SessionWithEventsTest, RefusesAnEventWithoutARequest) {
  const std::optional<Error> wrong = tell(About::oldest);
  ASSERT_TRUE(wrong);
  EXPECT_EQ(wrong->cause(), Cause::protocol);
}

TEST(SessionWithoutDialerTest, TakesAnEventForAMalformedAnswer) {
  Session session{std::chrono::seconds(30)};
  const Session::Time now{std::chrono::seconds(1000)};
  session.add(
      Request({"hostid"}), [](const Reply&) {}, now);
  session.queued(kEventFrame);
  session.progress(kEventFrame, now);
  const auto wrong =
      session.receive(LinkEvent{About::oldest, lost(Outcome::notSent)}.payload(), now);
  ASSERT_TRUE(wrong);
  EXPECT_EQ(wrong->cause(), Cause::protocol);
}

TEST(ExclusiveTaskTest, RefusesWhatClientsCannotShare) {
  for (const Request& request :
       {Request({"kill"}), Request({"wait"}), Request::exec({"true"}, -1)}) {
    const std::optional<Error> why = exclusiveTask(request);
    ASSERT_TRUE(why) << request.encode();
    EXPECT_EQ(why->outcome(), Outcome::notSent);
    EXPECT_FALSE(why->transient());
    EXPECT_TRUE(exclusiveTask(request.encode()));
  }
  for (const Request& request : {Request({"hostid"}), Request::exec({"kill"}, 1)}) {
    EXPECT_FALSE(exclusiveTask(request)) << request.encode();
    EXPECT_FALSE(exclusiveTask(request.encode()));
  }
}

TEST(ExclusiveTaskTest, WantsALimitOfAProgram) {
  const Request endless = Request::exec({"tar", "-x"}, 0).setReplyLimit(77);
  EXPECT_FALSE(exclusiveTask(endless));          // a transfer's own program
  EXPECT_TRUE(exclusiveTask(endless.encode()));  // what a user has written
  const Request same = limited(endless);
  EXPECT_EQ(same.words(), endless.words());
  EXPECT_EQ(same.replyLimit(), 77U);
  EXPECT_EQ(same.execLimit(), 3600);
  EXPECT_FALSE(exclusiveTask(same.encode()));
  EXPECT_EQ(limited(Request::exec({"true"}, 5)).execLimit(), 5);
  EXPECT_EQ(limited(Request({"read", "/a"})).words(), Request({"read", "/a"}).words());
}

}  // namespace
}  // namespace runel
