// SPDX-License-Identifier: Apache-2.0
// With the client of a device on one side and a scripted WebSocket on the other.
#include "gateway/multiplexer.h"

#include <cerrno>
#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <sys/socket.h>

#include <gtest/gtest.h>
#include <runel/async_device.h>

#include "client/io/dialer.h"
#include "protocol/frame_sender.h"

namespace runelctl {
namespace {

using runel::Outcome;
using runel::Reply;
using runel::Request;

std::string framed(const std::string& payload) {
  return zell::frameHead(payload.size()) + payload;
}

std::string answerOf(const std::string& output) {
  return framed("SlaveTask 0 0 " + std::to_string(output.size()) + ":" + output + " 0 0 0 0 0");
}

// What the test sees of a WebSocket, also after its end.
struct Sent {
  WebSocket::Handlers handlers;
  std::vector<std::string> texts;
  std::string bytes;  // of all channels
  std::size_t queued = 0;
  std::uint64_t last = 0;
  std::optional<std::uint64_t> begun;  // all without a value
  bool alive = true;
};

class ScriptedWebSocket : public WebSocket {
 public:
  explicit ScriptedWebSocket(std::shared_ptr<Sent> sent) : sent_(std::move(sent)) {}
  ~ScriptedWebSocket() override { sent_->alive = false; }

  std::uint64_t send(std::string message, bool binary) override {
    if (binary) {
      sent_->bytes += message.substr(4);
    } else {
      sent_->texts.push_back(std::move(message));
    }
    return ++sent_->last;
  }
  [[nodiscard]] std::uint64_t begun() const override { return sent_->begun.value_or(sent_->last); }
  [[nodiscard]] std::size_t queued() const override { return sent_->queued; }

 private:
  const std::shared_ptr<Sent> sent_;
};

class MultiplexerTest : public testing::Test, public runel::Dialer {
 protected:
  MultiplexerTest() {
    limits.connectTimeout = std::chrono::seconds(20);
    options.setIoTimeout(std::chrono::seconds(20));
    // The dialer outlives the devices.
    runel::DeviceDialer::set(options, std::shared_ptr<runel::Dialer>(this, [](runel::Dialer*) {}));
    make();
  }

  Dialed dial() override {
    int ends[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends), 0);
    auto line = std::make_shared<runel::DialedLine>();
    multiplexer->take(zell::UniqueFd(ends[1]), line);
    return {zell::UniqueFd(ends[0]), line};
  }

  void make() {
    multiplexer = std::make_unique<Multiplexer>(loop, limits, [this](WebSocket::Handlers handlers) {
      sockets.push_back(std::make_shared<Sent>());
      sockets.back()->handlers = std::move(handlers);
      return std::make_unique<ScriptedWebSocket>(sockets.back());
    });
  }

  // Runs the loop until @p reached.
  void until(const std::function<bool()>& reached) {
    const auto limit = runel::Clock::now() + std::chrono::seconds(20);
    while (!reached() && runel::Clock::now() < limit) {
      loop.turn(runel::Milliseconds(5));
    }
    ASSERT_TRUE(reached());
  }
  // Lets everything happen that does not wait.
  void settle() {
    for (int i = 0; i < 20; ++i) {
      loop.turn(runel::Milliseconds(0));
    }
  }

  void ask(const std::string& task, std::size_t size = 0) {
    std::vector<std::string> words{task};
    if (size > 0) {
      words = {task, "/file", std::string(size, 'x')};
    }
    device().ask(Request(words), [this](const Reply& reply) { replies.push_back(reply); });
  }
  runel::AsyncDevice& device() {
    if (!its) {
      its.emplace(loop, runel::Address::behindMaster("gw-1"), options);
    }
    return *its;
  }

  Sent& gateway() { return *sockets.back(); }
  void tell(const std::string& text) { gateway().handlers.message(std::string(text), false); }
  void data(const std::string& bytes, char channel = 1) {
    gateway().handlers.message(std::string("\0\0\0", 3) + channel + bytes, true);
  }
  // Asks for a device and attaches it.
  void attach() {
    ask("hostid");
    settle();
    gateway().handlers.opened();
    tell(R"({"attached":1,"device":"gw-1","hostid":"gw-1"})");
    until([&] { return !gateway().bytes.empty(); });
    data(answerOf("id"));
    until([&] { return replies.size() == 1; });
    ASSERT_EQ(replies[0].output(), "id");
    replies.clear();
    gateway().bytes.clear();
    gateway().texts.clear();
  }
  void lose(const std::string& why = "cable") {
    gateway().handlers.closed({runel::Kind::link, runel::Cause::closed, why, ECONNRESET});
  }

  runel::Loop loop;
  MultiplexerOptions limits;
  runel::DeviceOptions options;
  std::vector<std::shared_ptr<Sent>> sockets;
  std::unique_ptr<Multiplexer> multiplexer;
  std::vector<Reply> replies;
  std::optional<runel::AsyncDevice> its;
};

TEST_F(MultiplexerTest, ConnectsWhenADeviceIsUsed) {
  settle();
  EXPECT_TRUE(sockets.empty());
  ask("hostid");
  settle();
  ASSERT_EQ(sockets.size(), 1U);
  EXPECT_TRUE(gateway().texts.empty());
  gateway().handlers.opened();
  ASSERT_EQ(gateway().texts.size(), 1U);
  EXPECT_EQ(gateway().texts[0], R"({"attach":1,"device":"gw-1","deadline_ms":27000})");
  settle();
  EXPECT_EQ(gateway().bytes, "");
  tell(R"({"attached":1,"device":"gw-1","hostid":"gw-1"})");
  settle();
  EXPECT_EQ(gateway().bytes, framed(Request({"hostid"}).encode()));
  data(answerOf("id"));
  settle();
  ASSERT_EQ(replies.size(), 1U);
  EXPECT_EQ(replies[0].output(), "id");
}

TEST_F(MultiplexerTest, ADeviceMayBeRefused) {
  ask("hostid");
  settle();
  gateway().handlers.opened();
  tell(R"({"refused":1,"reason":"offline","text":"gw-1 is offline since noon"})");
  settle();
  ASSERT_EQ(replies.size(), 1U);
  EXPECT_EQ(replies[0].error().text(), "gw-1 is offline since noon");
  EXPECT_EQ(replies[0].error().outcome(), Outcome::notSent);
  EXPECT_EQ(replies[0].error().cause(), runel::Cause::refusedByMaster);
}

TEST_F(MultiplexerTest, AFailureTakesThePlaceOfAnAnswer) {
  attach();
  for (const char* task : {"hostid", "devicetype", "append"}) {
    ask(task);
  }
  settle();
  data(answerOf("id"));
  tell(R"({"failed":1,"outcome":"not run","reason":"denied","text":"not with this token"})");
  tell(R"({"failed":1,"outcome":"unknown","reason":"lost","text":"lost it"})");
  settle();
  ASSERT_EQ(replies.size(), 3U);
  EXPECT_EQ(replies[0].output(), "id");
  EXPECT_EQ(replies[1].error().text(), "not with this token");
  EXPECT_EQ(replies[1].error().outcome(), Outcome::notSent);
  EXPECT_EQ(replies[2].error().text(), "lost it");
  EXPECT_EQ(replies[2].error().outcome(), Outcome::unknown);
  EXPECT_EQ(device().inDoubt(), 1U);
}

TEST_F(MultiplexerTest, AChannelEndsWithWhatTheGatewayHasNotReceived) {
  attach();
  ask("append");
  ask("append");
  settle();
  tell(R"({"failed":1,"outcome":"unknown","reason":"lost","text":"gone"})");
  tell(R"({"lost":1,"text":"the device has gone"})");
  settle();
  ASSERT_EQ(replies.size(), 2U);
  EXPECT_EQ(replies[0].error().outcome(), Outcome::unknown);
  EXPECT_EQ(replies[1].error().outcome(), Outcome::notSent);
  EXPECT_EQ(replies[1].error().text(), "the device has gone");
  EXPECT_EQ(device().inDoubt(), 1U);
  ask("hostid");
  settle();
  EXPECT_EQ(gateway().texts.back(), R"({"attach":2,"device":"gw-1","deadline_ms":27000})");
}

TEST_F(MultiplexerTest, ALossTellsWhatWasGivenToTheGateway) {
  attach();
  ask("append");
  settle();
  gateway().begun = gateway().last;  // what follows stays in the queue
  ask("append");
  settle();
  lose();
  settle();
  ASSERT_EQ(replies.size(), 2U);
  EXPECT_EQ(replies[0].error().outcome(), Outcome::unknown);
  EXPECT_EQ(replies[1].error().outcome(), Outcome::notSent);
  EXPECT_EQ(replies[0].error().text(), "cable");
  EXPECT_EQ(device().unrepeatable(), 1U);
}

TEST_F(MultiplexerTest, ALossInTheMiddleOfAnAnswerIsAsExact) {
  attach();
  ask("read");
  settle();
  gateway().begun = gateway().last;
  ask("append");
  settle();
  data(answerOf(std::string(1000, 'x')).substr(0, 500));
  lose();
  settle();
  ASSERT_EQ(replies.size(), 2U);
  EXPECT_EQ(replies[0].error().outcome(), Outcome::unknown);
  EXPECT_EQ(replies[1].error().outcome(), Outcome::notSent);
}

TEST_F(MultiplexerTest, AnIncompleteRequestHasNotRun) {
  attach();
  ask("write", 500000);  // more than the credit
  settle();
  EXPECT_EQ(gateway().bytes.size() + framed(Request({"hostid"}).encode()).size(), kFirstCredit);
  lose();
  settle();
  ASSERT_EQ(replies.size(), 1U);
  EXPECT_EQ(replies[0].error().outcome(), Outcome::notSent);
}

TEST_F(MultiplexerTest, AnswersThatHaveComeAreNotLost) {
  attach();
  ask("hostid");
  settle();
  data(answerOf("id"));
  lose();
  settle();
  ASSERT_EQ(replies.size(), 1U);
  EXPECT_EQ(replies[0].output(), "id");
}

TEST_F(MultiplexerTest, SendsOnlyWhatHasCredit) {
  attach();
  ask("write", 1000000);
  settle();
  const std::size_t first = gateway().bytes.size();
  EXPECT_LE(first, kFirstCredit);
  tell(R"({"credit":1,"bytes":1000})");
  settle();
  EXPECT_EQ(gateway().bytes.size(), first + 1000);
  tell(R"({"credit":1,"bytes":2000000})");
  until([&] { return gateway().bytes.size() > 1000000; });
  data(answerOf(""));
  until([&] { return replies.size() == 1; });
  EXPECT_TRUE(replies[0].ok());
}

TEST_F(MultiplexerTest, GrantsWhatIsTaken) {
  attach();
  ask("read");
  settle();
  const std::string answer = answerOf(std::string(1000000, 'x'));
  std::size_t granted = kFirstCredit - answerOf("id").size();
  std::size_t given = 0;
  std::size_t known = 0;
  until([&] {
    for (; known < gateway().texts.size(); ++known) {
      const std::string& text = gateway().texts[known];
      granted += std::stoul(text.substr(text.find("bytes\":") + 7));
    }
    const std::size_t part =
        std::min(granted - given, std::min<std::size_t>(50000, answer.size() - given));
    if (part > 0) {
      data(answer.substr(given, part));
      given += part;
    }
    return replies.size() == 1;
  });
  EXPECT_EQ(replies[0].output().size(), 1000000U);
  EXPECT_GT(known, 3U);
}

TEST_F(MultiplexerTest, DataWithoutCreditEndTheConnection) {
  attach();
  ask("append");
  settle();
  data(std::string(kFirstCredit + 1, 'x'));
  settle();
  ASSERT_EQ(replies.size(), 1U);
  EXPECT_EQ(replies[0].error().outcome(), Outcome::unknown);
  EXPECT_EQ(replies[0].error().cause(), runel::Cause::protocol);
  EXPECT_FALSE(gateway().alive);
}

TEST_F(MultiplexerTest, MessagesThatMustNotComeEndTheConnection) {
  const std::vector<std::pair<std::string, bool>> messages{
      {"no JSON", false},
      {R"({"attached":99})", false},
      {R"({"failed":1,"outcome":"not run","reason":"busy"})", false},  // no request
      {R"({"sent":1})", false},
      {R"({"attached":1})", false},
      {R"({"credit":1,"bytes":1099511627776})", false},
      {R"({"devices":99,"list":[]})", false},
      {"abc", true},
      {std::string("\0\0\0\x63x", 5), true},
      {std::string("\0\0\0\0x", 5), true}};
  for (const auto& [message, binary] : messages) {
    its.reset();
    sockets.clear();
    make();
    attach();
    gateway().handlers.message(std::string(message), binary);
    settle();
    EXPECT_FALSE(gateway().alive) << message;
  }
}

TEST_F(MultiplexerTest, AFailureWithinAnAnswerEndsTheConnection) {
  attach();
  ask("read");
  settle();
  data(answerOf("answer").substr(0, 10));
  tell(R"({"failed":1,"outcome":"not run","reason":"busy"})");
  settle();
  ASSERT_EQ(replies.size(), 1U);
  EXPECT_EQ(replies[0].error().outcome(), Outcome::unknown);
  EXPECT_FALSE(gateway().alive);
}

TEST_F(MultiplexerTest, MessagesForAnEndedChannelAreIgnored) {
  attach();
  its.reset();
  settle();
  EXPECT_EQ(gateway().texts.back(), R"({"detach":1})");
  tell(R"({"lost":1,"text":"late"})");
  tell(R"({"credit":1,"bytes":1})");
  data("late");
  settle();
  EXPECT_TRUE(gateway().alive);
}

// The gateway would end the connection: the channel was never attached.
TEST_F(MultiplexerTest, AConnectionWithoutARequestLineIsNotTold) {
  attach();
  for (const std::string line : {"", "atta", "what\n"}) {
    const Dialed dialed = dial();
    ASSERT_EQ(send(dialed.socket.get(), line.data(), line.size(), 0),
              static_cast<ssize_t>(line.size()));
    settle();
  }
  settle();
  EXPECT_TRUE(gateway().texts.empty());
}

TEST_F(MultiplexerTest, ADeviceCannotPretendToBeTheGateway) {
  attach();
  ask("append");
  settle();
  data(framed(runel::LinkEvent{runel::LinkEvent::About::sent}.payload()));
  settle();
  ASSERT_EQ(replies.size(), 1U);
  EXPECT_FALSE(replies[0].answered());
  EXPECT_EQ(replies[0].error().outcome(), Outcome::unknown);
  EXPECT_EQ(replies[0].error().cause(), runel::Cause::protocol);
  EXPECT_TRUE(gateway().alive);  // other devices do not suffer
  EXPECT_EQ(gateway().texts.back(), R"({"detach":1})");
}

TEST_F(MultiplexerTest, ARequestThatIsNotCompleteMayFail) {
  attach();
  ask("write", 1000000);
  ask("hostid");
  settle();
  tell(R"({"failed":1,"outcome":"not run","reason":"denied","text":"not with this token"})");
  settle();
  ASSERT_EQ(replies.size(), 1U);
  EXPECT_EQ(replies[0].error().text(), "not with this token");
  tell(R"({"credit":1,"bytes":2000000})");
  const std::string next = framed(Request({"hostid"}).encode());
  until([&] {
    return gateway().bytes.size() > 1000000 &&
           gateway().bytes.substr(gateway().bytes.size() - next.size()) == next;
  });
  data(answerOf("id"));
  until([&] { return replies.size() == 2; });
  EXPECT_EQ(replies[1].output(), "id");
}

TEST_F(MultiplexerTest, ARestartIsCompleteWhenTheGatewayHasSentIt) {
  attach();
  ask("restart");
  settle();
  EXPECT_TRUE(replies.empty());
  tell(R"({"sent":1})");
  settle();
  ASSERT_EQ(replies.size(), 1U);
  EXPECT_TRUE(replies[0].ok());
}

TEST_F(MultiplexerTest, WaitsWhileMuchIsQueued) {
  attach();
  gateway().queued = 2000000;
  ask("write", 200000);
  settle();
  const std::size_t first = gateway().bytes.size();
  EXPECT_LE(first, 65536U);
  gateway().queued = 0;
  gateway().handlers.sent();
  until([&] { return gateway().bytes.size() > 200000; });
}

TEST_F(MultiplexerTest, BoundsTheRequestsAtTheGateway) {
  attach();
  const std::string one = framed(Request({"hostid"}).encode());
  for (int i = 0; i < 20000; ++i) {
    ask("hostid");
  }
  settle();
  // One read may have more.
  EXPECT_LE(gateway().bytes.size(), 65536U);
  EXPECT_GE(gateway().bytes.size(), 32 * one.size());
}

TEST_F(MultiplexerTest, ConnectsAgainForTheNextRequest) {
  attach();
  lose();
  settle();
  EXPECT_EQ(sockets.size(), 1U);
  ask("hostid");
  until([&] { return sockets.size() == 2; });
  gateway().handlers.closed(
      {runel::Kind::link, runel::Cause::noMaster, "no gateway", ECONNREFUSED});
  until([&] { return sockets.size() == 3; });
  gateway().handlers.opened();
  tell(R"({"attached":2,"device":"gw-1","hostid":"gw-1"})");
  settle();
  data(answerOf("again"), 2);
  settle();
  ASSERT_EQ(replies.size(), 1U);
  EXPECT_EQ(replies[0].output(), "again");
}

TEST_F(MultiplexerTest, WhatIsNotAttachedSurvivesALoss) {
  attach();
  runel::AsyncDevice other(loop, runel::Address::behindMaster("gw-2"), options);
  std::optional<Reply> reply;
  other.ask(Request({"hostid"}), [&](const Reply& got) { reply = got; });
  settle();
  lose();
  until([&] { return sockets.size() == 2; });
  gateway().handlers.opened();
  ASSERT_EQ(gateway().texts.size(), 1U);
  EXPECT_EQ(gateway().texts[0], R"({"attach":2,"device":"gw-2","deadline_ms":27000})");
  EXPECT_FALSE(reply);
}

TEST_F(MultiplexerTest, AGatewayThatWasNeverReachedIsNotTriedAgain) {
  ask("hostid");
  settle();
  gateway().handlers.closed(
      {runel::Kind::link, runel::Cause::noMaster, "no gateway", ECONNREFUSED});
  settle();
  ASSERT_EQ(replies.size(), 1U);
  EXPECT_EQ(replies[0].error().text(), "no gateway");
  EXPECT_EQ(replies[0].error().outcome(), Outcome::notSent);
}

TEST_F(MultiplexerTest, ARefusedTokenIsNotTriedAgain) {
  attach();
  lose();
  settle();
  ask("hostid");
  until([&] { return sockets.size() == 2; });
  gateway().handlers.closed({runel::Kind::link, runel::Cause::refusedByMaster, "no", EACCES});
  settle();
  ASSERT_EQ(replies.size(), 1U);
  EXPECT_EQ(replies[0].error().text(), "no");
}

TEST_F(MultiplexerTest, GivesUpWithTheLastReason) {
  limits.connectTimeout = runel::Milliseconds(200);
  make();
  attach();
  lose();
  settle();
  ask("hostid");
  std::size_t failed = 1;
  until([&] {
    if (sockets.size() > failed) {
      failed = sockets.size();
      gateway().handlers.closed(
          {runel::Kind::link, runel::Cause::noMaster, "attempt", ECONNREFUSED});
    }
    return replies.size() == 1;
  });
  EXPECT_EQ(replies[0].error().text(), "attempt");
  EXPECT_GT(failed, 1U);
  EXPECT_LT(failed, 6U);  // the pauses grow
}

TEST_F(MultiplexerTest, TheGatewayMayTellWhyItCloses) {
  attach();
  ask("append");
  settle();
  tell(R"({"error":"expired","text":"the token has expired"})");
  lose();
  settle();
  ASSERT_EQ(replies.size(), 1U);
  EXPECT_EQ(replies[0].error().text(), "the token has expired");
  EXPECT_EQ(replies[0].error().outcome(), Outcome::unknown);
}

TEST_F(MultiplexerTest, ListsDevicesInParts) {
  std::optional<Multiplexer::Listed> listed;
  multiplexer->list("@all", [&](const Multiplexer::Listed& result) { listed = result; });
  settle();
  gateway().handlers.opened();
  EXPECT_EQ(gateway().texts.back(), R"({"list":"@all","id":1})");
  tell(R"({"devices":1,"list":[{"device":"a"}],"next":"a"})");
  EXPECT_EQ(gateway().texts.back(), R"({"list":"@all","id":1,"cursor":"a"})");
  EXPECT_FALSE(listed);
  tell(R"({"devices":1,"list":[{"device":"b"}]})");
  ASSERT_TRUE(listed && *listed);
  ASSERT_EQ((*listed)->size(), 2U);
  EXPECT_EQ((**listed)[1].name, "b");
}

TEST_F(MultiplexerTest, AListMayFail) {
  std::optional<Multiplexer::Listed> listed;
  multiplexer->list("((", [&](const Multiplexer::Listed& result) { listed = result; });
  settle();
  gateway().handlers.opened();
  tell(R"({"error":"query","id":1,"text":"unbalanced"})");
  ASSERT_TRUE(listed);
  EXPECT_EQ(listed->error().text(), "unbalanced");
  EXPECT_EQ(listed->error().kind(), runel::Kind::local);
}

TEST_F(MultiplexerTest, AListIsAskedAgainAfterALoss) {
  attach();
  std::optional<Multiplexer::Listed> listed;
  multiplexer->list("@all", [&](const Multiplexer::Listed& result) { listed = result; });
  tell(R"({"devices":2,"list":[{"device":"a"}],"next":"a"})");
  lose();
  until([&] { return sockets.size() == 2; });
  gateway().handlers.opened();
  EXPECT_EQ(gateway().texts.back(), R"({"list":"@all","id":2})");
  tell(R"({"devices":2,"list":[{"device":"b"}]})");
  ASSERT_TRUE(listed && *listed);
  ASSERT_EQ((*listed)->size(), 1U);
}

}  // namespace
}  // namespace runelctl
