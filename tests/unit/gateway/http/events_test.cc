// SPDX-License-Identifier: Apache-2.0
#include <chrono>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "gateway/http/http.h"
#include "unit/gateway/http/http_case.h"

namespace runelgw::test {
namespace {

using std::chrono::milliseconds;
using testing::HasSubstr;

const char kSubscribe[] = "GET /events HTTP/1.1\r\nHost: localhost\r\n\r\n";

class EventStreamTest : public HttpCase {
 protected:
  std::shared_ptr<EventStream> stream;

  // A client that has received the head of the stream.
  RawClient subscriber(HttpSettings settings = local()) {
    start(std::move(settings), [this](const std::shared_ptr<HttpExchange>& exchange) {
      stream = exchange->startEvents({{"X-Test", "1"}});
    });
    RawClient one = client(4096);
    one.send(kSubscribe);
    head = one.until("\r\n\r\n");
    return one;
  }
  std::string head;
};

TEST_F(EventStreamTest, SendsEvents) {
  RawClient one = subscriber();
  EXPECT_EQ(200, statusOf(head));
  EXPECT_EQ("text/event-stream", headerOf(head, "Content-Type"));
  EXPECT_EQ("no-store", headerOf(head, "Cache-Control"));
  EXPECT_EQ("1", headerOf(head, "X-Test"));
  EXPECT_EQ("(absent)", headerOf(head, "Content-Length"));
  EXPECT_TRUE(stream->send("7", "state", "{}"));
  EXPECT_TRUE(stream->send("", "", "two\nlines"));
  EXPECT_EQ("id: 7\nevent: state\ndata: {}\n\ndata: two\ndata: lines\n\n", one.until("lines\n\n"));
  EXPECT_EQ(1U, server().state().eventStreams);
  stream->close();
  EXPECT_FALSE(stream->send("", "", "x"));
  EXPECT_EQ("", one.untilEnd());
  EXPECT_EQ(0U, server().state().eventStreams);
}

TEST_F(EventStreamTest, TextCannotBreakTheStream) {
  RawClient one = subscriber();
  EXPECT_TRUE(stream->send("1\nevent: x", "a\rdata: y", "b\r\n\r\nid: 3\rc\n"));
  stream.reset();
  EXPECT_EQ("id: 1\nevent: a\ndata: b\ndata: \ndata: id: 3\ndata: c\ndata: \n\n", one.untilEnd());
}

TEST_F(EventStreamTest, SendsWhatIsQueuedBeforeItEnds) {
  RawClient one = subscriber();
  for (int i = 0; i < 1000; ++i) {
    EXPECT_TRUE(stream->send(std::to_string(i), "", std::string(100, 'x')));
  }
  EXPECT_GT(stream->queued(), 0U);
  stream->close();
  EXPECT_THAT(one.untilEnd(), HasSubstr("id: 999\ndata: " + std::string(100, 'x') + "\n\n"));
}

TEST_F(EventStreamTest, EndsASlowReader) {
  HttpSettings settings = local();
  settings.maxQueuedEvents = 100000;
  RawClient one = subscriber(settings);
  bool gone = false;
  stream->onGone([&] { gone = true; });
  const std::string data(10000, 'x');
  int sent = 0;
  while (sent < 100000 && stream->send("", "", data)) {
    EXPECT_LE(stream->queued(), 100000U);
    settle();
    ++sent;
  }
  EXPECT_LT(sent, 100000);
  EXPECT_TRUE(stream->gone());
  EXPECT_TRUE(pump([&] { return !gone; }));
  EXPECT_EQ(0U, server().state().connections);
}

TEST_F(EventStreamTest, SendsHeartbeats) {
  HttpSettings settings = local();
  settings.heartbeat = milliseconds(50);
  RawClient one = subscriber(settings);
  EXPECT_EQ(":\n\n:\n\n", one.bytes(6));
  EXPECT_TRUE(stream->send("", "", "x"));
  one.until("data: x\n\n");
  EXPECT_EQ(":\n\n", one.bytes(3));
}

TEST_F(EventStreamTest, TellsWhenTheClientGoes) {
  RawClient one = subscriber();
  bool gone = false;
  stream->onGone([&] { gone = true; });
  one.send("some bytes that nobody reads");
  settle();
  EXPECT_FALSE(gone);
  one.close();
  EXPECT_TRUE(pump([&] { return !gone; }));
  EXPECT_TRUE(stream->gone());
  EXPECT_FALSE(stream->send("", "", "x"));
  EXPECT_EQ(0U, server().state().eventStreams);
}

TEST_F(EventStreamTest, EndsWhenTheServerStops) {
  RawClient one = subscriber();
  EXPECT_TRUE(stream->send("", "", "last"));
  bool stopped = false;
  stopServer([&] { stopped = true; });
  EXPECT_EQ("data: last\n\n", one.untilEnd());
  one.close();
  EXPECT_TRUE(pump([&] { return !stopped; }));
}

TEST_F(EventStreamTest, HeadHasNoEvents) {
  start(local(), [this](const std::shared_ptr<HttpExchange>& exchange) {
    stream = exchange->startEvents();
  });
  const std::string answer = answerTo("HEAD /events HTTP/1.1\r\nHost: localhost\r\n\r\n");
  EXPECT_EQ(200, statusOf(answer));
  EXPECT_EQ("", bodyOf(answer));
}

}  // namespace
}  // namespace runelgw::test
