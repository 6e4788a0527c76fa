// SPDX-License-Identifier: Apache-2.0
#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "gateway/http/http.h"
#include "unit/gateway/http/http_case.h"

namespace runelgw::test {
namespace {

using std::chrono::milliseconds;
using testing::HasSubstr;

const std::string kSwitch =
    "GET /v1/attach HTTP/1.1\r\nHost: localhost\r\nConnection: keep-alive, Upgrade\r\n"
    "Upgrade: websocket\r\nSec-WebSocket-Version: 13\r\n"
    "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\nSec-WebSocket-Protocol: other, test.v1\r\n\r\n";

// What happens to a WebSocket.
struct Recorder : public WebSocketHandler {
  void opened(std::shared_ptr<WebSocket> one) override { socket = std::move(one); }
  void message(std::string bytes, bool binary) override {
    messages.push_back((binary ? "binary " : "text ") + bytes);
  }
  void sent() override { ++timesSent; }
  void closed(const std::string& reason) override { ends.push_back(reason); }

  std::shared_ptr<WebSocket> socket;
  std::vector<std::string> messages;
  std::vector<std::string> ends;
  int timesSent = 0;
};

// One frame of a client: masked with zeros, so that its bytes are readable.
std::string frame(unsigned opcode, const std::string& payload, bool last = true) {
  std::string bytes(1, static_cast<char>((last ? 0x80U : 0U) | opcode));
  const std::size_t size = payload.size();
  if (size < 126) {
    bytes += static_cast<char>(0x80U | size);
  } else if (size < 65536) {
    bytes += static_cast<char>(0x80U | 126U);
    bytes += static_cast<char>(size >> 8U);
    bytes += static_cast<char>(size & 0xffU);
  } else {
    bytes += static_cast<char>(0x80U | 127U);
    for (unsigned shift = 64; shift > 0; shift -= 8) {
      bytes += static_cast<char>((static_cast<std::uint64_t>(size) >> (shift - 8)) & 0xffU);
    }
  }
  return bytes + std::string(4, '\0') + payload;
}

constexpr unsigned kText = 1;
constexpr unsigned kBinary = 2;
constexpr unsigned kClose = 8;
constexpr unsigned kPing = 9;
constexpr unsigned kPong = 10;

std::string closePayload(unsigned code, const std::string& reason) {
  return std::string{static_cast<char>(code >> 8U), static_cast<char>(code & 0xffU)} + reason;
}

class WebSocketTest : public HttpCase {
 protected:
  // Starts the server, whose sockets are given to `recorder`.
  void serve(HttpSettings settings = local(), const std::string& subprotocol = "test.v1") {
    start(std::move(settings), [this, subprotocol](const std::shared_ptr<HttpExchange>& exchange) {
      exchange->upgrade(recorder, subprotocol);
    });
  }
  RawClient opened(HttpSettings settings = local()) {
    serve(std::move(settings));
    RawClient one = client(4096);
    one.send(kSwitch);
    head = one.until("\r\n\r\n");
    EXPECT_TRUE(pump([&] { return !recorder->socket; }));
    return one;
  }
  // The next frame of the server: its first byte and the payload.
  static std::pair<unsigned, std::string> frameOf(RawClient& one) {
    const std::string begin = one.bytes(2);
    std::uint64_t size = static_cast<unsigned char>(begin[1]);
    EXPECT_LT(size, 128U) << "the server does not mask";
    if (size >= 126) {
      const std::string more = one.bytes(size == 126 ? 2 : 8);
      size = 0;
      for (const char byte : more) {
        size = size << 8U | static_cast<unsigned char>(byte);
      }
    }
    return {static_cast<unsigned char>(begin[0]), one.bytes(size)};
  }
  std::shared_ptr<Recorder> recorder = std::make_shared<Recorder>();
  std::string head;
};

TEST_F(WebSocketTest, OpensWithTheSubprotocol) {
  RawClient one = opened();
  EXPECT_EQ(
      "HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\nConnection: upgrade\r\n"
      "Sec-WebSocket-Accept: s3pPLMBiTxaQ9kYGzzhZRbK+xOo=\r\nServer: runelgw\r\n"
      "Sec-WebSocket-Protocol: test.v1\r\n\r\n",
      head);
  EXPECT_EQ(1U, server().state().webSockets);
}

TEST_F(WebSocketTest, CarriesMessagesInBothDirections) {
  RawClient one = opened();
  one.send(frame(kText, "a") + frame(kBinary, std::string("\0b", 2)) + frame(kText, "c", false) +
           frame(kPing, "p") + frame(0, "d"));
  ASSERT_TRUE(pump([&] { return recorder->messages.size() < 3; }));
  EXPECT_EQ((std::vector<std::string>{"text a", std::string("binary \0b", 9), "text cd"}),
            recorder->messages);
  EXPECT_EQ((std::pair<unsigned, std::string>{0x80U | kPong, "p"}), frameOf(one));
  recorder->socket->sendText("one");
  recorder->socket->sendBinary("two");
  EXPECT_EQ(6U, recorder->socket->queued());
  EXPECT_EQ((std::pair<unsigned, std::string>{0x80U | kText, "one"}), frameOf(one));
  EXPECT_EQ((std::pair<unsigned, std::string>{0x80U | kBinary, "two"}), frameOf(one));
  EXPECT_TRUE(pump([&] { return recorder->timesSent < 2; }));
  EXPECT_EQ(0U, recorder->socket->queued());
}

TEST_F(WebSocketTest, TellsWhenTheClientCloses) {
  RawClient one = opened();
  one.send(frame(kClose, closePayload(1000, "bye")));
  EXPECT_EQ((std::pair<unsigned, std::string>{0x80U | kClose, closePayload(1000, "")}),
            frameOf(one));
  EXPECT_EQ("", one.untilEnd());
  EXPECT_EQ(std::vector<std::string>{"The client closed the WebSocket (1000)."}, recorder->ends);
  EXPECT_TRUE(recorder->socket->gone());
  recorder->socket->sendText("ignored");
  recorder->socket->close(1000, "ignored");
  EXPECT_EQ(0U, server().state().webSockets);
}

TEST_F(WebSocketTest, TellsWhenTheConnectionIsLost) {
  RawClient one = opened();
  one.reset();
  ASSERT_TRUE(pump([&] { return recorder->ends.empty(); }));
  EXPECT_THAT(recorder->ends[0], HasSubstr("The connection was lost: "));
  ASSERT_TRUE(pump([&] { return server().state().connections != 0; }));
}

TEST_F(WebSocketTest, ClosesAfterWhatIsQueued) {
  RawClient one = opened();
  recorder->socket->sendText("last");
  recorder->socket->close(kClosePolicy, "Not allowed: " + std::string(200, 'x') + "\xc3\xa4");
  recorder->socket->sendText("ignored");
  one.send(frame(kText, "ignored"));
  EXPECT_EQ("last", frameOf(one).second);
  const auto close = frameOf(one);
  EXPECT_EQ(0x80U | kClose, close.first);
  EXPECT_EQ(closePayload(kClosePolicy, "Not allowed: " + std::string(110, 'x')), close.second);
  one.send(frame(kClose, closePayload(1008, "")));
  EXPECT_EQ("", one.untilEnd());
  ASSERT_EQ(1U, recorder->ends.size());
  EXPECT_THAT(recorder->ends[0], HasSubstr("This side closed the WebSocket: Not allowed"));
  EXPECT_TRUE(recorder->messages.empty());
}

TEST_F(WebSocketTest, CutsAReasonBetweenCharacters) {
  RawClient one = opened();
  recorder->socket->close(kClosePolicy, std::string(122, 'x') + "\xc3\xa4");
  EXPECT_EQ(closePayload(kClosePolicy, std::string(122, 'x')), frameOf(one).second);
}

TEST_F(WebSocketTest, MayBeClosedWithinItsCalls) {
  struct Closing : public Recorder {
    void opened(std::shared_ptr<WebSocket> one) override {
      one->sendText("hello");
      one->close(kCloseNormal, "done");
      one.reset();
    }
  };
  recorder = std::make_shared<Closing>();
  serve();
  RawClient one = client();
  one.send(kSwitch);
  one.until("\r\n\r\n");
  EXPECT_EQ("hello", frameOf(one).second);
  EXPECT_EQ(closePayload(kCloseNormal, "done"), frameOf(one).second);
  one.close();
  EXPECT_TRUE(pump([&] { return recorder->ends.empty(); }));
}

TEST_F(WebSocketTest, LongMessagesEndTheSession) {
  HttpSettings settings = local();
  settings.maxWebSocketMessage = 1000;
  RawClient one = opened(settings);
  one.send(frame(kBinary, std::string(1000, 'x')));
  ASSERT_TRUE(pump([&] { return recorder->messages.empty(); }));
  EXPECT_EQ(1007U, recorder->messages[0].size());
  one.send(frame(kBinary, std::string(500, 'x'), false) + frame(0, std::string(501, 'x')));
  EXPECT_EQ(closePayload(kCloseTooBig, ""), frameOf(one).second);
  ASSERT_TRUE(pump([&] { return recorder->ends.empty(); }));
  EXPECT_THAT(recorder->ends[0], HasSubstr("The client violated the WebSocket protocol: "));
}

TEST_F(WebSocketTest, ViolationsOfTheProtocolEndTheSession) {
  const std::vector<std::pair<std::string, unsigned>> violations = {
      {std::string("\x81\x01", 2) + "a", 1002},     // not masked
      {frame(0, "x"), 1002},                        // continues nothing
      {frame(3, "x"), 1002},                        // an unknown opcode
      {frame(kText, "\xff"), 1007},                 // not UTF-8
      {frame(kPing, std::string(126, 'x')), 1002},  // a long ping
      {frame(kPing, "x", false), 1002},             // a ping in parts
      {frame(kText, "x", false) + frame(kText, "y"), 1002},
      {std::string("\xc1\x80\0\0\0\0", 6), 1002},     // a reserved bit
      {frame(kClose, closePayload(1005, "")), 1002},  // a reserved code
      {std::string("\x82\xff\xff\xff\xff\xff\xff\xff\xff\xff\0\0\0\0", 14),
       1009},  // 2^64 - 1 bytes
      {std::string("\x82\xff\x7f\xff\xff\xff\xff\xff\xff\xff\0\0\0\0", 14), 1009},
  };
  for (const auto& [bytes, code] : violations) {
    recorder = std::make_shared<Recorder>();
    RawClient one = opened();
    one.send(bytes);
    const auto close = frameOf(one);
    EXPECT_EQ(0x80U | kClose, close.first);
    EXPECT_EQ(closePayload(code, ""), close.second.substr(0, 2)) << testing::PrintToString(bytes);
    EXPECT_TRUE(pump([&] { return recorder->ends.empty(); }));
    EXPECT_TRUE(recorder->messages.empty());
  }
}

TEST_F(WebSocketTest, PausesReading) {
  RawClient one = opened();
  recorder->socket->pauseReading(true);
  const std::string big = frame(kBinary, std::string(100000, 'x'));
  std::size_t taken = 0;
  for (int i = 0; i < 300; ++i) {
    taken += one.sendSome(big);
    settle();
  }
  EXPECT_LE(recorder->messages.size(), 1U);
  EXPECT_LT(taken, 300U * big.size()) << "the client waits";
  recorder->socket->pauseReading(false);
  EXPECT_TRUE(pump([&] { return recorder->messages.size() < 5; }));
}

TEST_F(WebSocketTest, PausesWithinAMessage) {
  struct Pausing : public Recorder {
    void message(std::string bytes, bool binary) override {
      Recorder::message(std::move(bytes), binary);
      socket->pauseReading(true);
    }
  };
  recorder = std::make_shared<Pausing>();
  RawClient one = opened();
  one.send(frame(kText, "1") + frame(kText, "2") + frame(kText, "3"));
  ASSERT_TRUE(pump([&] { return recorder->messages.empty(); }));
  runFor(milliseconds(20));
  EXPECT_EQ(1U, recorder->messages.size());
  recorder->socket->pauseReading(false);
  EXPECT_TRUE(pump([&] { return recorder->messages.size() < 2; }));
  runFor(milliseconds(20));
  EXPECT_EQ(2U, recorder->messages.size());
}

TEST_F(WebSocketTest, QueuesForASlowReaderAndDropsOneThatStops) {
  HttpSettings settings = local();
  settings.writeTimeout = milliseconds(1000);
  RawClient one = opened(settings);
  const std::string big(10000000, 'x');
  recorder->socket->sendBinary(big);
  recorder->socket->sendText("next");
  EXPECT_EQ(big.size() + 4, recorder->socket->queued());
  std::size_t read = 0;
  while (read < 4000000) {  // slowly, but it reads
    read += one.bytes(1000000).size();
    runFor(milliseconds(300));
  }
  EXPECT_TRUE(recorder->ends.empty());
  ASSERT_TRUE(pump([&] { return recorder->ends.empty(); }));
  EXPECT_EQ("The client does not read.", recorder->ends[0]);
  EXPECT_EQ(0U, server().state().connections);
}

TEST_F(WebSocketTest, PingsAndDropsASilentClient) {
  HttpSettings settings = local();
  settings.pingInterval = milliseconds(500);
  RawClient one = opened(settings);
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(0x80U | kPing, frameOf(one).first);
    one.send(frame(kPong, ""));
  }
  EXPECT_TRUE(recorder->ends.empty());
  ASSERT_TRUE(pump([&] { return recorder->ends.empty(); }));
  EXPECT_EQ("The client did not answer pings.", recorder->ends[0]);
  const std::string rest = one.untilEnd();
  EXPECT_EQ(std::string("\x89\0\x89\0", 4), rest);
}

TEST_F(WebSocketTest, DoesNotDropAClientThatItDoesNotRead) {
  HttpSettings settings = local();
  settings.pingInterval = milliseconds(40);
  RawClient one = opened(settings);
  recorder->socket->pauseReading(true);
  runFor(milliseconds(400));
  EXPECT_TRUE(recorder->ends.empty());
  one.send(frame(kPong, "") + frame(kText, "x"));
  recorder->socket->pauseReading(false);
  EXPECT_TRUE(pump([&] { return recorder->messages.empty(); }));
}

TEST_F(WebSocketTest, ClosesWhenTheServerStops) {
  RawClient one = opened();
  bool stopped = false;
  stopServer([&] { stopped = true; });
  EXPECT_EQ(closePayload(kCloseGoingAway, "The gateway stops."), frameOf(one).second);
  one.send(frame(kClose, closePayload(1001, "")));
  one.untilEnd();
  one.close();
  EXPECT_TRUE(pump([&] { return !stopped; }));
  EXPECT_EQ(1U, recorder->ends.size());
}

TEST_F(WebSocketTest, StopsWithAClientThatDoesNotAnswer) {
  HttpSettings settings = local();
  settings.drainTimeout = milliseconds(100);
  RawClient one = opened(settings);
  bool stopped = false;
  stopServer([&] { stopped = true; });
  EXPECT_TRUE(pump([&] { return !stopped || recorder->ends.empty(); }));
}

TEST_F(WebSocketTest, DestroyedServerCallsNoHandler) {
  RawClient one = opened();
  recorder->socket->sendBinary(std::string(10000000, 'x'));
  destroyServer();
  settle();
  EXPECT_TRUE(recorder->ends.empty());
  EXPECT_TRUE(recorder->socket->gone());
  recorder->socket->sendText("ignored");
  recorder->socket->pauseReading(true);
  recorder->socket->pauseReading(false);
  recorder->socket->close(1000, "");
  settle();
}

TEST_F(WebSocketTest, RefusesRequestsWithoutAProperUpgrade) {
  const auto with = [](const std::string& what, const std::string& instead) {
    std::string request = kSwitch;
    return request.replace(request.find(what), what.size(), instead);
  };
  const std::vector<std::pair<std::string, int>> requests = {
      {with("Upgrade: websocket\r\n", ""), 400},
      {with("keep-alive, Upgrade", "keep-alive"), 400},
      {with("Sec-WebSocket-Version: 13", "Sec-WebSocket-Version: 12"), 426},
      {with("Sec-WebSocket-Version: 13\r\n", ""), 426},
      {with("dGhlIHNhbXBsZSBub25jZQ==", "dGhlIHNhbXBsZQ=="), 400},
      {with("test.v1", "test.v2"), 400},
      {with("GET ", "POST "), 400},
      {with("HTTP/1.1\r\n", "HTTP/1.1\r\nOrigin: http://evil.example\r\n"), 403},
      {kSwitch + frame(kText, "too early"), 400},
  };
  for (const auto& [request, status] : requests) {
    recorder = std::make_shared<Recorder>();
    serve();
    const std::string answer = answerTo(request);
    EXPECT_EQ(status, statusOf(answer)) << request << answer;
    EXPECT_EQ(status == 403 ? 0U : 1U, recorder->ends.size()) << request;
    EXPECT_FALSE(recorder->socket);
  }
}

}  // namespace
}  // namespace runelgw::test
