// SPDX-License-Identifier: Apache-2.0
// The engine without I/O: no socket, no clock.
#include "client/core/session.h"

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <random>
#include <sstream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <zell/slave_task.h>

#include "client/core/frame_stream.h"
#include "client/core/late_content.h"
#include "protocol/protocol.h"
#include "protocol/task_table.h"

namespace runel {
namespace {

using std::chrono::seconds;

constexpr std::uint64_t kFrame = 10;  // the length of each frame of these tests

std::string record(const std::string& output) {
  return "SlaveTask 0 0 " + std::to_string(output.size()) + ":" + output + " 0 0 0 0 0";
}

class SessionTest : public testing::Test {
 protected:
  // Adds a request whose frame is queued.
  void ask(const std::string& task) {
    session.add(
        Request({task}), [](const Reply&) {}, now);
    queuedBytes += kFrame;
    session.queued(queuedBytes);
  }
  std::vector<Reply> completed() {
    std::vector<Reply> replies;
    while (auto next = session.nextCompletion()) {
      replies.push_back(next->reply);
    }
    return replies;
  }

  Session session{seconds(30)};
  Session::Time now{seconds(1000)};
  std::uint64_t queuedBytes = 0;
};

TEST_F(SessionTest, MatchesRepliesByTheirOrder) {
  ask("hostid");
  ask("devicetype");
  session.progress(2 * kFrame, now);
  EXPECT_FALSE(session.receive(record("one"), now));
  EXPECT_FALSE(session.receive(record("two"), now));
  const std::vector<Reply> replies = completed();
  ASSERT_EQ(replies.size(), 2U);
  EXPECT_EQ(replies[0].output(), "one");
  EXPECT_EQ(replies[1].output(), "two");
  EXPECT_EQ(session.pending(), 0U);
}

TEST_F(SessionTest, RejectsAReplyToARequestThatIsNotSentCompletely) {
  ask("hostid");
  session.progress(kFrame - 1, now);
  const std::optional<Error> error = session.receive(record("x"), now);
  ASSERT_TRUE(error);
  EXPECT_EQ(error->cause(), Cause::protocol);
}

TEST_F(SessionTest, AfterTheRequestsAreDroppedTheNextOneIsNotSent) {
  ask("hostid");
  session.progress(kFrame, now);
  session.clear();
  queuedBytes = 0;  // of the next connection
  ask("devicetype");
  EXPECT_EQ(session.sent(), 1U);
  EXPECT_TRUE(session.receive(record("x"), now));
}

TEST_F(SessionTest, RejectsAMalformedReply) {
  ask("hostid");
  session.progress(kFrame, now);
  EXPECT_TRUE(session.receive("nonsense", now));
}

TEST_F(SessionTest, ALossLeavesTheOutcomeOfSentRequestsUnknown) {
  ask("hostid");
  ask("devicetype");
  session.add(
      Request({"unlink", "/x"}), [](const Reply&) {}, now);  // not even queued
  session.progress(kFrame + 3, now);
  session.fail(Error(Kind::link, Cause::closed, "lost"));
  const std::vector<Reply> replies = completed();
  ASSERT_EQ(replies.size(), 3U);
  EXPECT_EQ(replies[0].error().outcome(), Outcome::unknown);
  EXPECT_EQ(replies[1].error().outcome(), Outcome::notSent);
  EXPECT_EQ(replies[2].error().outcome(), Outcome::notSent);
}

TEST_F(SessionTest, ARequestWithoutAReplyIsCompleteWhenItIsSent) {
  ask("restart");
  EXPECT_TRUE(completed().empty());
  session.progress(kFrame, now);
  const std::vector<Reply> replies = completed();
  ASSERT_EQ(replies.size(), 1U);
  EXPECT_TRUE(replies[0].answered());
}

TEST_F(SessionTest, TheDeadlineMovesWithEachByte) {
  ask("hostid");
  EXPECT_EQ(session.deadline(), now + seconds(30));
  session.progress(1, now + seconds(20));
  EXPECT_EQ(session.deadline(), now + seconds(50));
  EXPECT_FALSE(session.expired(now + seconds(49)));
  const std::optional<Error> error = session.expired(now + seconds(50));
  ASSERT_TRUE(error);
  EXPECT_EQ(error->kind(), Kind::timeout);
  EXPECT_EQ(error->text(), "no answer for 30 s");
}

TEST_F(SessionTest, ARequestThatIsNotQueuedHasNoDeadline) {
  session.add(
      Request({"hostid"}), [](const Reply&) {}, now);
  EXPECT_FALSE(session.deadline());
}

TEST_F(SessionTest, TasksWithoutALimitHaveNoDeadline) {
  ask("wait");
  EXPECT_FALSE(session.deadline());
}

TEST_F(SessionTest, CountsTheRequestsThatMayHaveRunAndAreNotRepeatable) {
  for (const char* task : {"append", "write", "append", "exec", "append"}) {
    ask(task);
  }
  session.progress(4 * kFrame + 3, now);
  EXPECT_EQ(session.sent(), 4U);
  EXPECT_EQ(session.unrepeatable(), 3U);
  EXPECT_FALSE(session.receive(record(""), now));
  EXPECT_FALSE(session.receive(record(""), now));
  EXPECT_FALSE(session.receive("SlaveTask 0 0 0: 1 0 1 12 0", now)) << "ENOMEM: it has not run";
  EXPECT_EQ(session.unrepeatable(), 2U);
  session.fail(Error(Kind::link, Cause::closed, "lost"));
  EXPECT_EQ(session.sent(), 4U);
  EXPECT_EQ(session.unrepeatable(), 2U);
}

TEST_F(SessionTest, OnlyRequestsWithoutAReplyAreInDoubt) {
  for (const char* task : {"append", "write", "append", "exec"}) {
    ask(task);
  }
  session.progress(3 * kFrame, now);
  EXPECT_EQ(session.inDoubt(), 2U) << "write is safe to repeat, exec is not sent";
  EXPECT_FALSE(session.receive(record(""), now));
  EXPECT_EQ(session.inDoubt(), 1U);
  session.fail(Error(Kind::link, Cause::closed, "lost"));
  EXPECT_EQ(session.inDoubt(), 1U);
  EXPECT_EQ(session.unrepeatable(), 2U);
}

TEST_F(SessionTest, AnAppendMayHaveRunInPart) {
  for (const char* task : {"append", "exec"}) {
    ask(task);
  }
  session.progress(2 * kFrame, now);
  EXPECT_FALSE(session.receive("SlaveTask 0 0 0: 1 0 1 11 0", now)) << "EAGAIN from a FIFO";
  EXPECT_EQ(session.unrepeatable(), 2U);
  EXPECT_FALSE(session.receive("SlaveTask 0 0 0: 1 0 1 11 0", now)) << "EAGAIN from fork";
  EXPECT_EQ(session.unrepeatable(), 1U);
}

TEST_F(SessionTest, SilenceCountsFromTheLastByteWhileAReplyIsDue) {
  EXPECT_EQ(session.silence(now + seconds(5)), Milliseconds(0));
  ask("exec");
  session.progress(kFrame, now + seconds(1));
  EXPECT_EQ(session.silence(now + seconds(5)), seconds(4));
  EXPECT_FALSE(session.receive(record(""), now + seconds(5)));
  EXPECT_EQ(session.silence(now + seconds(9)), Milliseconds(0));
}

TEST_F(SessionTest, KnowsTheSentTaskThatMayTakeAnyTime) {
  const auto add = [this](const Request& request) {
    session.add(
        request, [](const Reply&) {}, now);
    queuedBytes += kFrame;
    session.queued(queuedBytes);
  };
  ask("hostid");
  add(Request::exec({"true"}, -1));
  add(Request::exec({"sleep", "60"}, 90));
  ask("wait");
  session.progress(2 * kFrame, now);
  EXPECT_FALSE(session.longTask(now)) << "sleep is not sent";
  session.progress(4 * kFrame, now);
  const std::optional<LongTask> first = session.longTask(now + seconds(3));
  ASSERT_TRUE(first);
  EXPECT_EQ(first->task + " " + first->program, "exec sleep");
  EXPECT_EQ(first->limit, seconds(90));
  EXPECT_EQ(first->waiting, seconds(3));
  for (int i = 0; i < 3; ++i) {
    EXPECT_FALSE(session.receive(record(""), now));
  }
  EXPECT_EQ(session.longTask(now)->task, "wait");
  EXPECT_EQ(session.longTask(now)->limit, seconds(0));
}

TEST_F(SessionTest, ARawRequestIsNotRepeatable) {
  session.add(
      Request({"read"}), [](const Reply&) {}, now, true);
  session.queued(kFrame);
  session.progress(kFrame, now);
  EXPECT_EQ(session.unrepeatable(), 1U);
  session.clear();
  EXPECT_EQ(session.unrepeatable(), 1U);
}

TEST_F(SessionTest, AClearedSessionCompletesNothing) {
  ask("hostid");
  session.progress(kFrame, now);
  EXPECT_FALSE(session.receive(record("x"), now));
  session.clear();
  EXPECT_TRUE(completed().empty());
}

std::string sentBytes(FrameStream& stream, std::size_t most) {
  std::string bytes;
  while (stream.queued() > 0) {
    const std::string part(stream.outgoing(1).front().substr(0, most));
    bytes += part;
    stream.sent(part.size());
  }
  return bytes;
}

TEST(FrameStreamTest, GivesTheSameBytesHoweverTheyAreSent) {
  for (const std::size_t most : {1U, 3U, 100000U}) {
    FrameStream stream;
    stream.send("one");
    stream.send(std::string(40000, 'x'));
    stream.send("three");
    EXPECT_EQ(sentBytes(stream, most),
              "\x01"
              "3\x02one\x01"
              "40000\x02" +
                  std::string(40000, 'x') +
                  "\x01"
                  "5\x02three");
    EXPECT_EQ(stream.everQueued(), 40000U + 3 + 5 + 3 + 3 + 7);
  }
}

// Late content of numbered bytes, which notes how much of it was read.
LateContent numbered(std::size_t size, std::size_t& read) {
  return {size, [&read](std::uint64_t offset, std::size_t count, std::string& bytes) {
            EXPECT_EQ(offset, read) << "each byte once, in order";
            read += count;
            bytes.clear();
            for (std::size_t i = 0; i < count; ++i) {
              bytes.push_back(static_cast<char>((offset + i) % 251));
            }
          }};
}

TEST(FrameStreamTest, ReadsLateContentWhenItIsSent) {
  for (const std::size_t most : {1000U, 100000000U}) {
    std::size_t read = 0;
    FrameStream stream;
    stream.send("before");
    const Request late = LateRequest::with({"append", "/a"}, numbered(700000, read));
    stream.send(LateRequest::payloadOf(late));
    stream.send("after");
    EXPECT_EQ(read, 0U);
    stream.sent(stream.outgoing(1).front().size());
    stream.sent(stream.outgoing(1).front().size());
    EXPECT_EQ(read, 0U) << "the head of the frame is first";
    stream.sent(stream.outgoing(1).front().size());
    EXPECT_EQ(read, 262144U);
    (void)sentBytes(stream, most);
    EXPECT_EQ(read, 700000U);
    EXPECT_EQ(stream.queued(), 0U);
  }
}

TEST(FrameStreamTest, SendsTheEndOfARequestTogetherWithItsContent) {
  std::size_t read = 0;
  FrameStream stream;
  stream.send(LateRequest::payloadOf(LateRequest::with({"append", "/a"}, numbered(100, read))));
  const std::vector<std::string_view> heads = stream.outgoing(8);
  ASSERT_EQ(heads.size(), 3U)
      << "of the frame and of the request, and content that is not read yet";
  stream.sent(heads[0].size() + heads[1].size());
  ASSERT_EQ(stream.outgoing(8).size(), 2U);
  EXPECT_EQ(stream.outgoing(8).front().size(), 100U);
}

TEST(FrameStreamTest, LateContentGivesTheBytesOfAWholeRequest) {
  for (const std::size_t size : {1U, 100U, 262144U, 700000U}) {
    std::size_t read = 0;
    std::string bytes;
    numbered(size, read).read(0, size, bytes);
    FrameStream expected;
    expected.send("before");
    expected.send(Request({"append", "/a"}, bytes).encode());
    expected.send("after");
    read = 0;
    FrameStream stream;
    stream.send("before");
    stream.send(LateRequest::payloadOf(LateRequest::with({"append", "/a"}, numbered(size, read))));
    stream.send("after");
    EXPECT_EQ(sentBytes(stream, 5000), sentBytes(expected, 5000)) << size;
  }
}

// Queues and removes frames at random, while parts are sent. The others are sent unchanged.
TEST(FrameStreamTest, RemovesFramesOfWhichNothingIsSent) {
  std::mt19937 random(7);
  for (int run = 0; run < 200; ++run) {
    FrameStream stream;
    std::string sent;
    std::string expected;
    std::vector<std::pair<std::uint64_t, std::string>> frames;  // not started, with their begin
    const auto send = [&](std::size_t most) {
      const std::string part(stream.outgoing(1).front().substr(0, most));
      sent += part;
      stream.sent(part.size());
      while (!frames.empty() && frames.front().first < sent.size()) {
        expected += frames.front().second;
        frames.erase(frames.begin());
      }
    };
    for (int step = 0; step < 40; ++step) {
      const auto what = random() % 4;
      if (what < 2) {
        const std::string bytes(random() % 3 == 0 ? 40000 : random() % 50,
                                static_cast<char>('a' + step % 26));
        frames.emplace_back(stream.everQueued(),
                            "\x01" + std::to_string(bytes.size()) + "\x02" + bytes);
        if (random() % 2 == 0 || bytes.empty()) {
          stream.send(bytes);
        } else {
          OutgoingPayload payload;
          payload.content = {bytes.size() - 1,
                             [bytes](std::uint64_t offset, std::size_t count, std::string& part) {
                               part = bytes.substr(static_cast<std::size_t>(offset), count);
                             }};
          payload.tail = bytes.back();
          stream.send(std::move(payload));
        }
      } else if (what == 2 && stream.queued() > 0) {
        send(random() % 2 == 0 ? 3 : 30000);
      } else if (!frames.empty()) {
        const std::size_t at = random() % frames.size();
        const std::size_t length = frames[at].second.size();
        stream.remove(frames[at].first, frames[at].first + length);
        frames.erase(frames.begin() + static_cast<std::ptrdiff_t>(at));
        for (std::size_t later = at; later < frames.size(); ++later) {
          frames[later].first -= length;
        }
      }
    }
    while (stream.queued() > 0) {
      send(1000000);
    }
    ASSERT_EQ(sent, expected) << "run " << run;
    ASSERT_EQ(stream.everQueued(), sent.size());
  }
}

TEST(FrameStreamTest, SpoilsTheLastByteOfAFrame) {
  for (const std::size_t size : {5U, 40000U}) {
    FrameStream stream;
    stream.send("one");
    stream.send(std::string(size, '0'));
    const std::uint64_t end = stream.everQueued();
    stream.send("three");
    stream.sent(stream.outgoing(1).front().size() > 10 ? 10 : 6);
    stream.spoil(end);
    const std::string bytes = sentBytes(stream, 1000);
    EXPECT_EQ(std::count(bytes.begin(), bytes.end(), '!'), 1);
    EXPECT_NE(bytes.find("0!\x01"
                         "5\x02three"),
              std::string::npos);
  }
}

TEST(FrameStreamTest, ReadsNoFurtherWhenLateContentCannotBeRead) {
  FrameStream stream;
  OutgoingPayload payload;
  payload.content = {1000000, [](std::uint64_t offset, std::size_t count, std::string& bytes) {
                       bytes.assign(offset == 0 ? count : count - 1, 'x');
                     }};
  stream.send(std::move(payload));
  while (!stream.unreadable()) {
    ASSERT_FALSE(stream.outgoing(1).empty());
    stream.sent(stream.outgoing(1).front().size());
  }
  EXPECT_EQ(stream.everQueued() - stream.queued(), 262144U + 9);
}

TEST(FrameStreamTest, GivesTheSamePayloadsHoweverTheyAreReceived) {
  const std::string bytes =
      "\x01"
      "3\x02one\x01"
      "0\x02\x01"
      "3\x02two";
  for (std::size_t cut = 1; cut <= bytes.size(); ++cut) {
    FrameStream stream;
    std::vector<std::string> payloads;
    for (std::size_t at = 0; at < bytes.size(); at += cut) {
      stream.receive(bytes.substr(at, cut));
      while (auto payload = stream.nextPayload()) {
        payloads.push_back(*payload);
      }
    }
    EXPECT_EQ(payloads, (std::vector<std::string>{"one", "", "two"})) << cut;
    EXPECT_FALSE(stream.error());
  }
}

TEST(FrameStreamTest, APayloadAboveTheLimitIsAnError) {
  FrameStream stream;
  stream.limitPayloads(2);
  stream.receive(
      "\x01"
      "3\x02one");
  EXPECT_FALSE(stream.nextPayload());
  ASSERT_TRUE(stream.error());
  EXPECT_EQ(stream.error()->text(), "answer exceeds the size limit");
}

TEST(FrameStreamTest, APayloadAboveTheLimitIsAnErrorAsSoonAsItIsAnnounced) {
  FrameStream stream;
  stream.limitPayloads(1000);
  stream.receive(
      "\x01"
      "1000\x02S");
  EXPECT_FALSE(stream.nextPayload());
  EXPECT_FALSE(stream.error());
  stream.receive(std::string(999, 'x') + "\x01" + "1001\x02");
  EXPECT_TRUE(stream.nextPayload());
  EXPECT_FALSE(stream.nextPayload());
  EXPECT_TRUE(stream.error());
}

// A store that counts what it gets.
class CountingStore : public PayloadStore {
 public:
  CountingStore(std::size_t& added, bool lost) : added_(added), lost_(lost) {}
  void add(std::string_view bytes) override {
    added_ += bytes.size();
    bytes_ += bytes;
  }
  std::optional<std::string> take() override {
    return lost_ ? std::nullopt : std::make_optional(bytes_);
  }

 private:
  std::size_t& added_;
  const bool lost_;
  std::string bytes_;
};

TEST(FrameStreamTest, KeepsALongPayloadInItsStore) {
  constexpr std::size_t kLength = 1000000;
  const std::string payload(kLength, 'p');
  const std::string bytes =
      "\x01"
      "3\x02one\x01"
      "1000000\x02" +
      payload +
      "\x01"
      "3\x02two";
  for (const std::size_t cut : {std::size_t{7}, std::size_t{1000}, std::size_t{65536}, kLength}) {
    FrameStream stream;
    std::size_t added = 0;
    std::vector<std::size_t> lengths;
    stream.keepLongPayloads([&](std::size_t length) {
      lengths.push_back(length);
      return std::make_unique<CountingStore>(added, false);
    });
    std::vector<std::string> payloads;
    for (std::size_t at = 0; at < bytes.size(); at += cut) {
      stream.receive(bytes.substr(at, cut));
      while (auto next = stream.nextPayload()) {
        payloads.push_back(*next);
      }
    }
    EXPECT_EQ(payloads, (std::vector<std::string>{"one", payload, "two"})) << cut;
    EXPECT_EQ(lengths, std::vector<std::size_t>{kLength});
    EXPECT_EQ(added, kLength);
    EXPECT_FALSE(stream.error());
  }
}

TEST(FrameStreamTest, ALostPayloadIsAnError) {
  FrameStream stream;
  std::size_t added = 0;
  stream.keepLongPayloads(
      [&](std::size_t) { return std::make_unique<CountingStore>(added, true); });
  stream.receive(
      "\x01"
      "300000\x02");
  EXPECT_FALSE(stream.nextPayload());
  stream.receive(std::string(300000, 'x'));
  EXPECT_FALSE(stream.nextPayload());
  ASSERT_TRUE(stream.error());
  EXPECT_EQ(stream.error()->kind(), Kind::local);
}

TEST(RequestTest, IsTheRecordOfItsWordsAndLimit) {
  const std::string bytes("\0 1:\xff", 5);
  for (const int limit : {-1, 0, 60}) {
    const zell::SlaveTask sent({"exec", "a b", "", bytes}, limit, "", zell::SlaveStatus::success,
                               zell::WatchProcessState_t::none, 0, 0, 0);
    std::ostringstream expected;
    sent.serialize(expected);
    EXPECT_EQ(Request::exec({"a b", "", bytes}, limit).encode(), expected.str());
  }
}

TEST(RequestTest, LateContentIsItsLastArgument) {
  std::size_t read = 0;
  std::string bytes;
  numbered(300, read).read(0, 300, bytes);
  read = 0;
  const Request late = LateRequest::with({"append", "/a"}, numbered(300, read));
  EXPECT_EQ(late.encode(), Request({"append", "/a"}, bytes).encode());
}

TEST(RequestTest, EachTaskHasALimitForItsReply) {
  for (const zell::TaskTraits& task : zell::kTasks) {
    const std::size_t limit = Request({std::string(task.name)}).replyLimit();
    if (task.name == "exec") {
      EXPECT_EQ(limit, zell::kMaxProgramOutput + 65536);
    } else {
      EXPECT_EQ(limit, zell::isLong(task.text) ? zell::kMaxFramePayload : 65536) << task.name;
    }
  }
  EXPECT_EQ(Request({"no-such-task"}).replyLimit(), 65536U);
}

TEST(FrameStreamTest, NamesAPeerOfAnotherProtocol) {
  FrameStream stream;
  stream.receive("SSH-2.0-x\r\n");
  EXPECT_FALSE(stream.nextPayload());
  ASSERT_TRUE(stream.error());
  EXPECT_EQ(stream.error()->cause(), Cause::wrongPeer);
}

}  // namespace
}  // namespace runel
