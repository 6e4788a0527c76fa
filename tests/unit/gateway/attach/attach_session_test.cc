// SPDX-License-Identifier: Apache-2.0
#include <chrono>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <zell/slave_task.h>
#include <nlohmann/json.hpp>

#include "fakes/gateway/fake_router.h"
#include "gateway/attach/attach.h"
#include "gateway/attach/number_set.h"
#include "support/task_wire.h"
#include "support/temp_dir.h"

namespace runelgw::test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using Json = nlohmann::json;

constexpr std::size_t kWindow = 262144;
constexpr DeviceId kAlpha = 7;

using zell::test::request;
using zell::test::requestRecord;

std::string framed(const std::string& payload) {
  return zell::test::frame(payload);
}

// A WebSocket whose client takes what the test lets it take.
struct FakeSocket : public WebSocket {
  void sendText(std::string text) override { add(std::move(text), false); }
  void sendBinary(std::string bytes) override { add(std::move(bytes), true); }
  [[nodiscard]] std::size_t queued() const override { return queuedBytes; }
  void pauseReading(bool pause) override { paused = pause; }
  void close(unsigned code, std::string reason) override {
    closeCode = code;
    closeReason = std::move(reason);
  }
  [[nodiscard]] bool gone() const override { return closeCode != 0; }

  void add(std::string bytes, bool binary) {
    EXPECT_EQ(0U, closeCode) << "sent after close: " << bytes;
    if (stuck) {
      queuedBytes += bytes.size();
    }
    if (binary) {
      const auto number = static_cast<unsigned char>(bytes.at(3));
      streams[number] += bytes.substr(4);
      texts.push_back("bytes " + std::to_string(number) + ' ' + std::to_string(bytes.size() - 4));
    } else {
      texts.push_back(std::move(bytes));
    }
  }

  bool stuck = false;
  std::size_t queuedBytes = 0;
  std::vector<std::string> texts;  // and the sizes of binary messages
  std::map<unsigned, std::string> streams;
  bool paused = false;
  unsigned closeCode = 0;
  std::string closeReason;
};

struct FakePermit : public Permit {
  [[nodiscard]] std::string label() const override { return "token ci"; }
  [[nodiscard]] bool valid() const override { return isValid; }
  [[nodiscard]] bool maySee(DeviceId device) const override { return hidden.count(device) == 0; }
  [[nodiscard]] bool may(TaskKind kind, DeviceId) const override {
    return forbidden.count(kind) == 0;
  }
  void record(std::string_view task, DeviceId device, const Answer& answer) override {
    records.push_back(std::string(task) + ' ' + std::to_string(device) + ' ' +
                      nameOf(answer.outcome) + ' ' + codeOf(answer.reason));
  }

  bool isValid = true;
  std::set<DeviceId> hidden;
  std::set<TaskKind> forbidden;
  std::vector<std::string> records;
};

struct FakeDirectory : public AttachDirectory {
  [[nodiscard]] std::optional<Entry> find(const std::string& name) const override {
    const auto found = entries.find(name);
    return found == entries.end() ? std::nullopt : std::optional(found->second);
  }
  [[nodiscard]] runel::Result<Part> list(const std::string& query, const std::string& cursor,
                                         const Permit&, std::size_t) const override {
    if (query == "bad") {
      return runel::Error(runel::Kind::local, runel::Cause::other, "at character 1: \"bad\"");
    }
    return cursor.empty() ? Part{{"{\"device\":\"a\"}", "{\"device\":\"b\"}"}, "b\""}
                          : Part{{"{\"device\":\"" + longName + "\"}"}, ""};
  }
  std::map<std::string, Entry> entries;
  std::string longName = "c";
};

class AttachSessionTest : public testing::Test {
 protected:
  AttachSessionTest() {
    directory.entries["alpha"] = {kAlpha, "alpha", "host-a", Reason::none};
    directory.entries["beta"] = {8, "beta", "host-b", Reason::none};
    directory.entries["away"] = {9, "away", "host-c", Reason::offline};
    directory.entries["new"] = {10, "new", "host-d", Reason::waiting};
    settings.tick = std::chrono::milliseconds(1);
  }

  void open() {
    session = makeAttachSession(permit, {loop, router, directory, spool}, settings);
    session->opened(socket);
  }
  void attach(unsigned channel = 1, const std::string& device = "alpha") {
    if (!session) {
      open();
    }
    text("{\"attach\":" + std::to_string(channel) + ",\"device\":\"" + device +
         "\",\"deadline_ms\":5000}");
    take();
  }
  void text(const std::string& message) { session->message(message, false); }
  void bytes(const std::string& stream, unsigned channel = 1) {
    session->message(std::string{0, 0, 0, static_cast<char>(channel)} + stream, true);
  }
  // Sends @p stream in messages within the granted credit. Returns how much was not granted.
  std::size_t bytesWithinCredit(const std::string& stream, unsigned channel = 1) {
    std::size_t sent = 0;
    while (sent < stream.size()) {
      const std::size_t part =
          std::min<std::size_t>({stream.size() - sent, credit(channel), std::size_t{65536}});
      if (part == 0) {
        break;
      }
      spent[channel] += part;
      bytes(stream.substr(sent, part), channel);
      sent += part;
    }
    return stream.size() - sent;
  }
  // What the gateway has granted and is not used.
  std::size_t credit(unsigned channel) {
    for (; seen < socket->texts.size(); ++seen) {
      const Json json = Json::parse(socket->texts[seen], nullptr, false);
      if (json.is_object() && json.contains("credit")) {
        granted[json["credit"].get<unsigned>()] += json["bytes"].get<std::size_t>();
      }
    }
    return kWindow + granted[channel] - spent[channel];
  }
  std::vector<std::string> take() {
    seen = 0;
    return std::exchange(socket->texts, {});
  }
  // The messages without those of credit and bytes.
  std::vector<std::string> events() {
    (void)credit(1);
    std::vector<std::string> found;
    for (const std::string& one : take()) {
      if (one.find("{\"credit\"") != 0 && one.find("bytes ") != 0) {
        found.push_back(one);
      }
    }
    return found;
  }
  void answer(const std::string& payload) {
    router.answer({Outcome::answered, Reason::none, "", Payload(payload)});
  }
  void fail(Outcome outcome, Reason reason, const std::string& why = "why") {
    router.answer({outcome, reason, why, {}});
  }
  void tick() {
    const auto until = runel::Clock::now() + std::chrono::milliseconds(5);
    while (runel::Clock::now() < until) {
      loop.turn(std::chrono::milliseconds(1));
    }
  }
  std::vector<std::string> pending() {
    std::vector<std::string> tasks;
    for (const auto& sent : router.sent) {
      zell::SlaveTask task;
      std::string whole;
      EXPECT_TRUE(sent.call.request.read(0, sent.call.request.size(), whole));
      EXPECT_TRUE(task.parse(whole));
      tasks.push_back(task.args().at(0));
    }
    return tasks;
  }

  zell::test::TempDir temporary;
  runel::Loop loop;
  FakeRouter router;
  FakeDirectory directory;
  std::shared_ptr<PayloadSpool> spool =
      std::make_shared<PayloadSpool>(temporary.path(), std::uint64_t{64} << 20U);
  std::shared_ptr<FakePermit> permit = std::make_shared<FakePermit>();
  std::shared_ptr<FakeSocket> socket = std::make_shared<FakeSocket>();
  AttachSettings settings;
  std::shared_ptr<WebSocketHandler> session;
  std::size_t seen = 0;
  std::map<unsigned, std::size_t> granted;
  std::map<unsigned, std::size_t> spent;
};

const char kLost[] = "{\"lost\":1,\"text\":\"a request of the channel has failed\"}";

TEST_F(AttachSessionTest, AttachesToDevices) {
  open();
  text("{\"attach\":1,\"device\":\"alpha\",\"deadline_ms\":5000,\"new\":true}");
  text("{\"attach\":4294967295,\"device\":\"beta\"}");
  EXPECT_THAT(take(),
              ElementsAre("{\"attached\":1,\"device\":\"alpha\",\"hostid\":\"host-a\"}",
                          "{\"attached\":4294967295,\"device\":\"beta\",\"hostid\":\"host-b\"}"));
}

TEST_F(AttachSessionTest, RefusesDevicesThatCannotBeUsed) {
  open();
  permit->hidden = {8};
  text("{\"attach\":1,\"device\":\"away\"}");
  text("{\"attach\":2,\"device\":\"new\"}");
  text("{\"attach\":3,\"device\":\"nowhere\"}");
  text("{\"attach\":4,\"device\":\"beta\"}");
  EXPECT_THAT(
      take(),
      ElementsAre(
          "{\"refused\":1,\"reason\":\"offline\",\"text\":\"the device is not connected\"}",
          "{\"refused\":2,\"reason\":\"waiting\",\"text\":\"the device waits for approval\"}",
          "{\"refused\":3,\"reason\":\"offline\",\"text\":\"no such device is known\"}",
          "{\"refused\":4,\"reason\":\"offline\",\"text\":\"no such device is known\"}"));
}

TEST_F(AttachSessionTest, PassesRecordsOnByteForByte) {
  attach();
  const std::string asked = requestRecord({"write", "/f", std::string("\0\1\2<>", 5)});
  bytes(framed(asked).substr(0, 10));
  EXPECT_TRUE(router.sent.empty());
  bytes(framed(asked).substr(10));
  ASSERT_EQ(1U, router.sent.size());
  const Call& call = router.sent[0].call;
  EXPECT_EQ(kAlpha, call.device);
  EXPECT_EQ(asked, call.request.bytes());
  EXPECT_EQ("token ci", call.label);
  EXPECT_TRUE(call.repeat);
  const auto left = call.deadline - runel::Clock::now();
  EXPECT_GT(left, std::chrono::seconds(4));
  EXPECT_LE(left, std::chrono::seconds(5));
  const std::string reply = "SlaveTask 0 0 0: 0 0 0 0 0";
  answer(reply);
  EXPECT_EQ(framed(reply), socket->streams[1]);
  EXPECT_THAT(permit->records, ElementsAre("write 7 answered none"));
}

TEST_F(AttachSessionTest, ALimitAndTheSizeMakeTheDeadlineLater) {
  attach();
  bytes(request({"exec", "/bin/x"}, 60));
  ASSERT_EQ(1U, router.sent.size());
  EXPECT_GT(router.sent[0].call.deadline - runel::Clock::now(), std::chrono::seconds(66));
  EXPECT_LE(router.sent[0].call.deadline - runel::Clock::now(), std::chrono::seconds(67));
  EXPECT_TRUE(router.sent[0].call.deadlineWaits);
  answer("x");
  bytes(request({"write", "/f", std::string(200000, 'x')}));
  ASSERT_EQ(1U, router.sent.size());
  EXPECT_GT(router.sent[0].call.deadline - runel::Clock::now(), std::chrono::seconds(7));
}

TEST_F(AttachSessionTest, ReadsAreSentTogetherAndChangesAlone) {
  attach();
  for (int i = 0; i < 10; ++i) {
    bytes(request({"fileexists", "/f"}));
  }
  bytes(request({"unlink", "/f"}) + request({"stat", "/f"}) + request({"unlink", "/g"}));
  EXPECT_EQ(8U, router.sent.size());
  for (int i = 0; i < 9; ++i) {
    answer("x");
  }
  EXPECT_THAT(pending(), ElementsAre("fileexists"));
  answer("x");
  EXPECT_THAT(pending(), ElementsAre("unlink"));
  answer("x");
  EXPECT_THAT(pending(), ElementsAre("stat"));
  answer("x");
  EXPECT_THAT(pending(), ElementsAre("unlink"));
}

TEST_F(AttachSessionTest, AnswersAreInOrderOfTheirRequests) {
  attach();
  bytes(request({"stat", "/1"}) + request({"stat", "/2"}) + request({"stat", "/3"}));
  ASSERT_EQ(3U, router.sent.size());
  std::swap(router.sent[0], router.sent[2]);
  answer("third");
  EXPECT_EQ("", socket->streams[1]);
  answer("second");
  answer("first");
  EXPECT_EQ(framed("first") + framed("second") + framed("third"), socket->streams[1]);
}

TEST_F(AttachSessionTest, RefusesWhatAllClientsWouldShare) {
  attach();
  bytes(request({"exec", "/bin/x"}, -1) + request({"kill"}) + request({"wait"}) +
        request({"exec", "/bin/x"}, 0) + request({"nonsense"}) + framed("not a record") +
        framed("") + request({"hostid"}));
  const auto told = events();
  ASSERT_EQ(7U, told.size());
  for (const std::string& one : told) {
    EXPECT_THAT(
        one, HasSubstr("{\"failed\":1,\"outcome\":\"not run\",\"reason\":\"refused\",\"text\":"));
  }
  EXPECT_THAT(told[0], HasSubstr("start a job with a foreground"));
  EXPECT_THAT(told[3], HasSubstr("without a limit"));
  EXPECT_THAT(told[5], HasSubstr("malformed"));
  EXPECT_THAT(pending(), ElementsAre("hostid"));
  EXPECT_EQ("exec 7 not run refused", permit->records.at(0));
}

TEST_F(AttachSessionTest, ChecksTheRightsForEachRequest) {
  attach();
  permit->forbidden = {TaskKind::write};
  bytes(request({"unlink", "/f"}) + request({"hostid"}));
  EXPECT_THAT(events(), ElementsAre("{\"failed\":1,\"outcome\":\"not run\",\"reason\":\"denied\","
                                    "\"text\":\"this client may not run \\\"unlink\\\" here\"}"));
  EXPECT_THAT(pending(), ElementsAre("hostid"));
  answer("x");
  permit->forbidden = {TaskKind::look};
  bytes(request({"hostid"}));
  EXPECT_EQ(1U, events().size());
  EXPECT_TRUE(router.sent.empty());
  EXPECT_THAT(permit->records, ElementsAre("unlink 7 not run denied", "hostid 7 answered none",
                                           "hostid 7 not run denied"));
}

TEST_F(AttachSessionTest, ARefusalWaitsForEarlierAnswers) {
  attach();
  bytes(request({"hostid"}) + request({"kill"}));
  EXPECT_THAT(events(), IsEmpty());
  answer("first");
  const auto told = take();
  ASSERT_EQ(2U, told.size());
  EXPECT_EQ("bytes 1 8", told[0]);
  EXPECT_THAT(told[1], HasSubstr("{\"failed\":1,"));
}

TEST_F(AttachSessionTest, NothingRunsBehindAFailure) {
  attach();
  bytes(request({"unlink", "/1"}) + request({"unlink", "/2"}) + request({"kill"}) +
        request({"hostid"}));
  fail(Outcome::notRun, Reason::busy, "busy with exec by token b");
  EXPECT_THAT(events(),
              ElementsAre("{\"failed\":1,\"outcome\":\"not "
                          "run\",\"reason\":\"busy\",\"text\":\"busy with exec by token b\"}",
                          "{\"failed\":1,\"outcome\":\"not run\",\"reason\":\"lost\",\"text\":\"a "
                          "request of the channel has failed\"}",
                          "{\"failed\":1,\"outcome\":\"not run\",\"reason\":\"lost\",\"text\":\"a "
                          "request of the channel has failed\"}",
                          "{\"failed\":1,\"outcome\":\"not run\",\"reason\":\"lost\",\"text\":\"a "
                          "request of the channel has failed\"}",
                          kLost));
  EXPECT_TRUE(router.sent.empty());
  EXPECT_TRUE(router.cancelled.empty());
  bytes(request({"hostid"}));  // was on its way
  text("{\"detach\":1}");
  text("{\"credit\":1,\"bytes\":5}");
  EXPECT_THAT(events(), IsEmpty());
  EXPECT_TRUE(router.sent.empty());
  EXPECT_EQ(0U, socket->closeCode);
}

TEST_F(AttachSessionTest, TheOutcomeOfWhatWasSentTogetherIsUnknown) {
  attach();
  bytes(request({"stat", "/1"}) + request({"stat", "/2"}) + request({"stat", "/3"}) +
        request({"unlink", "/4"}));
  ASSERT_EQ(3U, router.sent.size());
  std::swap(router.sent[0], router.sent[1]);
  answer("second");
  fail(Outcome::unknown, Reason::lost);
  const auto told = events();
  ASSERT_EQ(5U, told.size());
  EXPECT_THAT(told[0], HasSubstr("\"outcome\":\"unknown\",\"reason\":\"lost\",\"text\":\"why\""));
  EXPECT_THAT(told[1], HasSubstr("\"outcome\":\"unknown\""));
  EXPECT_THAT(told[2], HasSubstr("\"outcome\":\"unknown\""));
  EXPECT_THAT(told[3], HasSubstr("\"outcome\":\"not run\""));
  EXPECT_EQ(kLost, told[4]);
  EXPECT_EQ(1U, router.cancelled.size());
  EXPECT_EQ("", socket->streams[1]);
}

TEST_F(AttachSessionTest, TellsThatARequestWithoutAnAnswerIsSent) {
  attach();
  bytes(request({"restart"}));
  answer("");
  EXPECT_THAT(events(), ElementsAre("{\"sent\":1}"));
}

TEST_F(AttachSessionTest, TellsOfProgress) {
  attach();
  bytes(request({"read", "/long"}) + request({"read", "/2"}));
  tick();
  EXPECT_THAT(events(), IsEmpty());
  QueueState state;
  state.current = router.sent[0].id;
  state.progress = runel::Clock::now();
  router.queues[kAlpha] = state;
  tick();
  EXPECT_THAT(events(), ElementsAre("{\"progress\":1}"));
  router.queues[kAlpha].progress += std::chrono::milliseconds(1);
  router.queues[kAlpha].current = 99;  // of another client
  tick();
  EXPECT_THAT(events(), IsEmpty());
}

TEST_F(AttachSessionTest, SendsNoMoreThanTheClientTakes) {
  attach();
  bytes(request({"read", "/f"}));
  const std::string content(1000000, 'x');
  answer(content);
  EXPECT_EQ(kWindow, socket->streams[1].size());
  text("{\"credit\":1,\"bytes\":10}");
  EXPECT_EQ(kWindow + 10, socket->streams[1].size());
  text("{\"credit\":1,\"bytes\":10000000}");
  EXPECT_TRUE(socket->streams[1] == framed(content));
}

TEST_F(AttachSessionTest, AFailureNeverComesWithinAnAnswer) {
  attach();
  bytes(request({"read", "/f"}) + request({"kill"}));
  answer(std::string(500000, 'x'));
  EXPECT_THAT(events(), IsEmpty());
  text("{\"credit\":1,\"bytes\":300000}");
  EXPECT_EQ(1U, events().size());
}

TEST_F(AttachSessionTest, ASlowClientIsNotSentMore) {
  attach();
  attach(2, "beta");
  socket->stuck = true;
  text("{\"credit\":1,\"bytes\":100000000}");
  bytes(request({"read", "/f"}));
  bytes(request({"read", "/f"}), 2);
  answer(std::string(5000000, 'x'));
  answer(std::string(5000000, 'x'));
  EXPECT_LT(socket->queuedBytes, 1048576U + 70000U);
  const std::size_t before = socket->queuedBytes;
  socket->queuedBytes = 0;
  session->sent();
  EXPECT_GT(socket->queuedBytes, before / 2);
  EXPECT_GT(socket->streams[2].size(), 100000U) << "the channels send in turn";
}

TEST_F(AttachSessionTest, AClientThatReadsNothingIsNotRead) {
  attach();
  socket->stuck = true;
  directory.longName = std::string(50000, 'c');
  for (int i = 0; i < 1000 && !socket->paused; ++i) {
    text("{\"list\":\"@all\",\"id\":1,\"cursor\":\"b\"}");
  }
  EXPECT_TRUE(socket->paused);
  EXPECT_LT(socket->queuedBytes, 5000000U);
  socket->queuedBytes = 1000;
  session->sent();
  EXPECT_FALSE(socket->paused);
}

TEST_F(AttachSessionTest, HoldsRequestsWhileManyAnswersWait) {
  settings.answerBytes = 1000000;
  attach();
  attach(2, "beta");
  socket->stuck = true;
  socket->queuedBytes = 2000000;
  for (int i = 0; i < 10; ++i) {
    bytes(request({"read", "/f"}));
  }
  ASSERT_EQ(8U, router.sent.size());
  for (int i = 0; i < 8; ++i) {
    answer(std::string(500000, 'x'));
  }
  EXPECT_TRUE(router.sent.size() <= 2U);
  while (!router.sent.empty()) {
    answer(std::string(500000, 'x'));
  }
  bytes(request({"read", "/f"}), 2);
  EXPECT_TRUE(router.sent.empty());
  text("{\"credit\":1,\"bytes\":100000000}");
  socket->stuck = false;
  socket->queuedBytes = 0;
  session->sent();
  EXPECT_EQ(1U, router.sent.size());
}

TEST_F(AttachSessionTest, LongRequestsAreSpooled) {
  attach();
  const std::string asked = requestRecord({"write", "/f", std::string(3000000, 'y')});
  EXPECT_EQ(0U, bytesWithinCredit(framed(asked)));
  ASSERT_EQ(1U, router.sent.size());
  const Payload& payload = router.sent[0].call.request;
  EXPECT_FALSE(payload.isInMemory());
  std::string whole;
  ASSERT_TRUE(payload.read(0, asked.size(), whole));
  EXPECT_TRUE(whole == asked);
  EXPECT_EQ(asked.size(), spool->used());
  answer("x");
  EXPECT_EQ(framed("x"), socket->streams[1]);
  EXPECT_EQ(0U, spool->used());
}

TEST_F(AttachSessionTest, SpooledRequestsAreExamined) {
  attach();
  permit->forbidden = {TaskKind::write};
  EXPECT_EQ(0U, bytesWithinCredit(request({"write", "/f", std::string(300000, 'y')})));
  EXPECT_THAT(events().at(0), HasSubstr("\"denied\""));
  EXPECT_EQ(0U, bytesWithinCredit(request({"exec", "/bin/x", std::string(300000, 'y')}, -1)));
  EXPECT_THAT(events().at(0), HasSubstr("in the background"));
  EXPECT_EQ(0U, bytesWithinCredit(request({"exec", "/bin/x", std::string(5000000, 'y')}, 5)));
  EXPECT_THAT(events().at(0), HasSubstr("too long"));
  EXPECT_EQ(0U, bytesWithinCredit(framed(std::string(300000, 'y'))));
  EXPECT_THAT(events().at(0), HasSubstr("malformed"));
  EXPECT_TRUE(router.sent.empty());
  EXPECT_EQ(0U, spool->used());
}

TEST_F(AttachSessionTest, AFullSpoolIsTold) {
  spool = std::make_shared<PayloadSpool>(temporary.path(), 100000);
  attach();
  (void)bytesWithinCredit(request({"write", "/f", std::string(300000, 'y')}) + request({"hostid"}));
  const auto told = events();
  ASSERT_EQ(3U, told.size());
  EXPECT_THAT(told[0], HasSubstr("\"outcome\":\"not run\",\"reason\":\"storage\""));
  EXPECT_THAT(told[1], HasSubstr("\"reason\":\"lost\""));
  EXPECT_EQ(kLost, told[2]);
  EXPECT_TRUE(router.sent.empty());
}

TEST_F(AttachSessionTest, LongAnswersComeFromTheSpool) {
  attach();
  std::string content;
  for (int i = 0; content.size() < 2000000; ++i) {
    content += std::to_string(i) + ' ';
  }
  auto writer = spool->begin(content.size());
  ASSERT_TRUE(writer.ok() && (*writer)->add(content));
  text("{\"credit\":1,\"bytes\":100000000}");
  bytes(request({"read", "/f"}));
  router.answer({Outcome::answered, Reason::none, "", (*writer)->finish()});
  EXPECT_TRUE(socket->streams[1] == framed(content));
  EXPECT_EQ(0U, spool->used());
}

TEST_F(AttachSessionTest, AnswersThatCannotBeReadEndTheSession) {
  struct Broken : public PayloadSource {
    [[nodiscard]] std::uint64_t size() const override { return 2000000; }
    [[nodiscard]] bool read(std::uint64_t offset, std::size_t count,
                            std::string& out) const override {
      out.assign(count, 'x');
      return offset < 600000 || offset > 1900000;
    }
  };
  attach();
  text("{\"credit\":1,\"bytes\":100000000}");
  bytes(request({"read", "/f"}));
  router.answer({Outcome::answered, Reason::none, "", Payload(std::make_shared<Broken>())});
  EXPECT_EQ(1011U, socket->closeCode);
  EXPECT_THAT(take().back(), HasSubstr("{\"error\":\"storage\""));
}

TEST_F(AttachSessionTest, AStuckDeviceStopsItsChannelOnly) {
  attach();
  attach(2, "beta");
  std::string many;
  while (many.size() < 2000000) {
    many += request({"write", "/f", std::string(1000, 'y')});
  }
  const std::size_t left = bytesWithinCredit(many);
  EXPECT_GT(left, 2000000U - kWindow - 131072U);
  EXPECT_EQ(1U, router.sent.size());
  bytes(request({"hostid"}), 2);
  EXPECT_EQ(2U, router.sent.size());
  // The credit grows again as the device takes requests.
  const std::size_t before = credit(1);
  for (int i = 0; i < 300; ++i) {
    answer("x");
  }
  EXPECT_GT(credit(1), before + 65536);
}

TEST_F(AttachSessionTest, ALargeRequestInMemoryDoesNotBlockItself) {
  attach();
  const std::string asked = request({"write", "/f", std::string(settings.memoryBytes - 100, 'y')});
  for (int i = 0; i < 10; ++i) {
    ASSERT_EQ(0U, bytesWithinCredit(asked)) << i;
    ASSERT_EQ(1U, router.sent.size());
    EXPECT_TRUE(router.sent[0].call.request.isInMemory());
    answer("x");
  }
}

TEST_F(AttachSessionTest, ParallelPushesStayWithinABound) {
  open();
  std::string stream;
  while (stream.size() < 3000000) {
    stream += request({"append", "/f", std::string(200000, 'y')});
  }
  std::size_t held = 0;
  for (unsigned channel = 1; channel <= 20; ++channel) {
    attach(channel);
    held += stream.size() - bytesWithinCredit(stream, channel);
  }
  EXPECT_EQ(20U, router.sent.size());
  EXPECT_LT(held, 20U * 1200000U);
}

TEST_F(AttachSessionTest, DetachDropsWhatIsNotDone) {
  attach();
  bytes(request({"unlink", "/1"}) + request({"unlink", "/2"}));
  bytes(request({"write", "/f", std::string(300000, 'y')}).substr(0, 200000));
  EXPECT_GT(spool->used(), 0U);
  const CallId call = router.sent[0].id;
  text("{\"detach\":1}");
  EXPECT_THAT(router.cancelled, ElementsAre(call));
  EXPECT_EQ(0U, spool->used());
  EXPECT_THAT(events(), IsEmpty());
  EXPECT_THAT(permit->records,
              ElementsAre("unlink 7 unknown whether it ran lost", "unlink 7 not run lost"));
}

TEST_F(AttachSessionTest, TheEndOfTheConnectionDropsEverything) {
  attach();
  attach(2, "beta");
  bytes(request({"unlink", "/1"}));
  bytes(request({"unlink", "/1"}), 2);
  session->closed("The connection was lost.");
  EXPECT_EQ(2U, router.cancelled.size());
  EXPECT_EQ(1, socket.use_count());
  EXPECT_EQ(2U, permit->records.size());
  session->message("late", false);
  session->sent();
}

TEST_F(AttachSessionTest, AnswersAfterTheEndAreIgnored) {
  attach();
  bytes(request({"stat", "/1"}));
  const auto done = router.sent[0].done;
  session->closed("");
  done({Outcome::answered, Reason::none, "", Payload("x")});
  session.reset();
  done({Outcome::answered, Reason::none, "", Payload("x")});
  EXPECT_EQ("", socket->streams[1]);
}

TEST_F(AttachSessionTest, EndsWhenTheTokenIsNotValidAnyMore) {
  attach();
  bytes(request({"unlink", "/1"}));
  permit->isValid = false;
  tick();
  EXPECT_EQ(1008U, socket->closeCode);
  EXPECT_THAT(
      events(),
      ElementsAre("{\"error\":\"unauthorized\",\"text\":\"the token is not valid any more\"}"));
  EXPECT_EQ(1U, router.cancelled.size());
}

TEST_F(AttachSessionTest, ListsDevices) {
  open();
  text("{\"list\":\"@all\",\"id\":3}");
  text("{\"list\":\"@all\",\"id\":3,\"cursor\":\"b\\\"\"}");
  text("{\"list\":\"bad\",\"id\":4}");
  EXPECT_THAT(
      take(),
      ElementsAre(
          "{\"devices\":3,\"list\":[{\"device\":\"a\"},{\"device\":\"b\"}],\"next\":\"b\\\"\"}",
          "{\"devices\":3,\"list\":[{\"device\":\"c\"}]}",
          "{\"error\":\"query\",\"id\":4,\"text\":\"at character 1: \\\"bad\\\"\"}"));
}

TEST_F(AttachSessionTest, BadFramesEndTheChannel) {
  for (const std::string& bad : {std::string("hello"),
                                 std::string("\1"
                                             "99999999999\2"),
                                 std::string("\1x\2"),
                                 std::string("\1"
                                             "268435457\2"),
                                 std::string("<a/>")}) {
    session.reset();
    socket = std::make_shared<FakeSocket>();
    attach();
    bytes(request({"hostid"}) + bad);
    const auto told = events();
    ASSERT_EQ(2U, told.size()) << bad;
    EXPECT_THAT(told[0], HasSubstr("{\"failed\":1,\"outcome\":\"unknown\",\"reason\":\"lost\""));
    EXPECT_THAT(told[1],
                HasSubstr("{\"lost\":1,\"text\":\"the client violates the protocol of frames: "));
    EXPECT_EQ(0U, socket->closeCode);
    router.sent.clear();
  }
}

TEST_F(AttachSessionTest, UnknownMessagesAreIgnored) {
  attach();
  text("{}");
  text("{\"later\":1}");
  EXPECT_THAT(take(), IsEmpty());
  EXPECT_EQ(0U, socket->closeCode);
}

TEST_F(AttachSessionTest, ViolationsEndTheSession) {
  struct Violation {
    const char* text;
    const char* reason;
  };
  const Violation violations[] = {
      {"", "a text message must be a JSON object"},
      {"[1]", "a text message must be a JSON object"},
      {"{\"attach\":2", "a text message must be a JSON object"},
      {"{\"attach\":0,\"device\":\"alpha\"}", "the message \"attach\" is malformed"},
      {"{\"attach\":-1,\"device\":\"alpha\"}", "the message \"attach\" is malformed"},
      {"{\"attach\":4294967296,\"device\":\"alpha\"}", "the message \"attach\" is malformed"},
      {"{\"attach\":1e3,\"device\":\"alpha\"}", "the message \"attach\" is malformed"},
      {"{\"attach\":99999999999999999999999,\"device\":\"alpha\"}",
       "the message \"attach\" is malformed"},
      {"{\"attach\":2}", "the message \"attach\" is malformed"},
      {"{\"attach\":2,\"device\":7}", "the message \"attach\" is malformed"},
      {"{\"attach\":2,\"device\":\"alpha\",\"deadline_ms\":0}",
       "the message \"attach\" is malformed"},
      {"{\"attach\":2,\"device\":\"alpha\",\"deadline_ms\":604800001}",
       "the message \"attach\" is malformed"},
      {"{\"attach\":1,\"device\":\"alpha\"}", "channel 1 was used before"},
      {"{\"detach\":2}", "channel 2 was never attached"},
      {"{\"detach\":\"1\"}", "the message \"detach\" is malformed"},
      {"{\"credit\":2,\"bytes\":1}", "channel 2 was never attached"},
      {"{\"credit\":1}", "the message \"credit\" is malformed"},
      {"{\"credit\":1,\"bytes\":0}", "the message \"credit\" is malformed"},
      {"{\"credit\":1,\"bytes\":-5}", "the message \"credit\" is malformed"},
      {"{\"credit\":1,\"bytes\":1099511627777}", "the message \"credit\" is malformed"},
      {"{\"credit\":1,\"bytes\":1099511627776}", "the credit of channel 1 is too large"},
      {"{\"list\":\"@all\"}", "the message \"list\" is malformed"},
      {"{\"list\":5,\"id\":1}", "the message \"list\" is malformed"},
      {"{\"list\":\"@all\",\"id\":1,\"cursor\":1}", "the message \"list\" is malformed"},
  };
  for (const auto& violation : violations) {
    session.reset();
    router.cancelled.clear();
    router.sent.clear();
    socket = std::make_shared<FakeSocket>();
    attach();
    bytes(request({"hostid"}));
    text(violation.text);
    EXPECT_EQ(1008U, socket->closeCode) << violation.text;
    EXPECT_EQ(violation.reason, socket->closeReason);
    const auto told = events();
    ASSERT_EQ(1U, told.size()) << violation.text;
    EXPECT_EQ("protocol", Json::parse(told[0])["error"]);
    EXPECT_EQ(1U, router.cancelled.size());
    EXPECT_EQ(1, socket.use_count());
    text("{\"list\":\"@all\",\"id\":1}");
    bytes("x");
  }
}

TEST_F(AttachSessionTest, BinaryViolationsEndTheSession) {
  const std::pair<std::string, const char*> violations[] = {
      {"", "a binary message begins with the number of a channel"},
      {std::string("\0\0\1", 3), "a binary message begins with the number of a channel"},
      {std::string("\0\0\0\2x", 5), "channel 2 was never attached"},
      {std::string("\0\0\0\0x", 5), "channel 0 was never attached"},
      {std::string("\0\0\0\1", 4) + std::string(kWindow + 1, '\1'),
       "channel 1 has sent more than its credit"},
  };
  for (const auto& [message, reason] : violations) {
    session.reset();
    socket = std::make_shared<FakeSocket>();
    attach();
    session->message(message, true);
    EXPECT_EQ(1008U, socket->closeCode);
    EXPECT_EQ(reason, socket->closeReason);
  }
}

TEST_F(AttachSessionTest, TheNumberOfChannelsIsLimited) {
  settings.mostChannels = 2;
  attach(1);
  attach(2);
  text("{\"attach\":3,\"device\":\"alpha\"}");
  EXPECT_THAT(
      take(),
      ElementsAre(
          "{\"refused\":3,\"reason\":\"busy\",\"text\":\"this client has too many channels\"}"));
  text("{\"detach\":1}");
  text("{\"attach\":4,\"device\":\"alpha\"}");
  EXPECT_THAT(take().at(0), HasSubstr("attached"));
}

TEST(NumberSetTest, HoldsRanges) {
  NumberSet set;
  std::set<std::uint32_t> model;
  for (const std::uint32_t number :
       {5U, 7U, 6U, 1U, 4294967295U, 4294967294U, 2U, 9U, 8U, 3U, 4U}) {
    EXPECT_FALSE(set.has(number)) << number;
    set.add(number);
    model.insert(number);
    for (std::uint32_t one = 0; one < 12; ++one) {
      EXPECT_EQ(model.count(one) != 0, set.has(one)) << one << " after " << number;
    }
  }
  EXPECT_TRUE(set.has(4294967295U));
  EXPECT_EQ(2U, set.ranges());
}

}  // namespace
}  // namespace runelgw::test
