// SPDX-License-Identifier: Apache-2.0
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
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
using testing::Not;
using testing::StartsWith;

const char kGet[] = "GET /a HTTP/1.1\r\nHost: localhost\r\n\r\n";

class HttpServerTest : public HttpCase {};

std::string withoutDate(std::string response) {
  const std::size_t begin = response.find("Date: ");
  if (begin != std::string::npos) {
    response.erase(begin, response.find("\r\n", begin) + 2 - begin);
  }
  return response;
}

TEST_F(HttpServerTest, AnswersWithTheseBytes) {
  start();
  RawClient one = client();
  one.send(kGet);
  EXPECT_EQ(
      "HTTP/1.1 200 OK\r\n"
      "Content-Length: 6\r\n"
      "X-Content-Type-Options: nosniff\r\n"
      "Referrer-Policy: no-referrer\r\n"
      "Cache-Control: no-store\r\n"
      "Content-Type: text/plain; charset=utf-8\r\n"
      "\r\n"
      "GET /a",
      withoutDate(one.response()));
}

TEST_F(HttpServerTest, KeepsTheConnection) {
  start();
  RawClient one = client();
  for (int i = 0; i < 3; ++i) {
    one.send(kGet);
    const std::string answer = one.response();
    EXPECT_EQ("GET /a", bodyOf(answer));
    EXPECT_EQ("(absent)", headerOf(answer, "Connection"));
  }
  one.send("GET /b HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\n\r\n");
  const std::string last = one.untilEnd();
  EXPECT_EQ("GET /b", bodyOf(last));
  EXPECT_EQ("close", headerOf(last, "Connection"));
  EXPECT_EQ(1U, server().state().accepted);
  EXPECT_EQ(4U, server().state().requests);
  one.close();
  ASSERT_TRUE(pump([&] { return server().state().connections != 0; }));
}

TEST_F(HttpServerTest, AnswersHttp10AndCloses) {
  start();
  EXPECT_THAT(
      answerTo("GET / HTTP/1.0\r\nHost: localhost\r\n\r\n"),
      testing::AllOf(StartsWith("HTTP/1.0 200 OK\r\n"), HasSubstr("Connection: close\r\n")));
}

TEST_F(HttpServerTest, AnswersHeadWithoutABody) {
  start();
  RawClient one = client();
  one.send(std::string("HEAD /a HTTP/1.1\r\nHost: localhost\r\n\r\n") + kGet);
  const std::string head = one.until("\r\n\r\n");
  EXPECT_EQ("7", headerOf(head, "Content-Length"));
  EXPECT_EQ("GET /a", bodyOf(one.response()));
}

TEST_F(HttpServerTest, SendsNoLengthWhereNoneBelongs) {
  start({}, [](const std::shared_ptr<HttpExchange>& exchange) {
    exchange->respond(emptyResponse(exchange->request().path == "/204" ? 204 : 304));
  });
  RawClient one = client();
  one.send(
      "GET /204 HTTP/1.1\r\nHost: localhost\r\n\r\nGET /304 HTTP/1.1\r\nHost: localhost\r\n\r\n");
  const std::string first = one.until("\r\n\r\n");
  EXPECT_EQ(204, statusOf(first));
  EXPECT_EQ("(absent)", headerOf(first, "Content-Length"));
  const std::string second = one.until("\r\n\r\n");
  EXPECT_EQ(304, statusOf(second));
  EXPECT_EQ("(absent)", headerOf(second, "Content-Length"));
}

TEST_F(HttpServerTest, HandlerDecidesTheOtherHeaders) {
  start({}, [](const std::shared_ptr<HttpExchange>& exchange) {
    exchange->respond(emptyResponse(405)
                          .with("Allow", "GET")
                          .with("cache-control", "max-age=60")
                          .with("Referrer-Policy", "same-origin"));
  });
  const std::string answer = answerTo(kGet);
  EXPECT_EQ(405, statusOf(answer));
  EXPECT_EQ("GET", headerOf(answer, "Allow"));
  EXPECT_EQ("max-age=60", headerOf(answer, "cache-control"));
  EXPECT_EQ("(absent)", headerOf(answer, "Cache-Control"));
  EXPECT_EQ("same-origin", headerOf(answer, "Referrer-Policy"));
  EXPECT_EQ("0", headerOf(answer, "Content-Length"));
}

TEST_F(HttpServerTest, HeadersOfAnAnswerCannotBreakIt) {
  const std::vector<std::pair<std::string, std::string>> bad = {{"X", "a\r\nSet-Cookie: b"},
                                                                {"X", "a\n"},
                                                                {"X: y", "a"},
                                                                {"", "a"},
                                                                {"Content-Length", "0"},
                                                                {"transfer-encoding", "chunked"},
                                                                {"X", std::string(1, '\0')}};
  start({}, [&](const std::shared_ptr<HttpExchange>& exchange) {
    const auto& field = bad[static_cast<std::size_t>(exchange->request().path[1] - '0')];
    exchange->respond(textResponse(200, "x").with(field.first, field.second));
  });
  for (std::size_t i = 0; i < bad.size(); ++i) {
    const std::string answer =
        answerTo("GET /" + std::to_string(i) + " HTTP/1.1\r\nHost: localhost\r\n\r\n");
    EXPECT_EQ(500, statusOf(answer)) << i;
    EXPECT_THAT(answer, Not(HasSubstr("Set-Cookie")));
  }
}

TEST_F(HttpServerTest, AnswersPipelinedRequestsInOrder) {
  start({}, keep());
  RawClient one = client();
  std::string requests;
  for (int i = 0; i < 20; ++i) {
    requests += "GET /" + std::to_string(i) + " HTTP/1.1\r\nHost: localhost\r\n\r\n";
  }
  one.send(requests);
  for (std::size_t i = 0; i < 20; ++i) {
    ASSERT_TRUE(pump([&] { return exchanges.size() <= i; }));
    settle();
    ASSERT_EQ(i + 1, exchanges.size()) << "one at a time";
    exchanges.back()->respond(textResponse(200, exchanges.back()->request().path));
    EXPECT_EQ('/' + std::to_string(i), bodyOf(one.response()));
  }
}

TEST_F(HttpServerTest, ReadsNoUnlimitedNumberOfPipelinedRequests) {
  start({}, keep());
  RawClient one = client();
  const std::string request =
      "GET /a HTTP/1.1\r\nHost: localhost\r\nX: " + std::string(2000, 'a') + "\r\n\r\n";
  std::string requests;
  while (requests.size() < 1000000) {
    requests += request;
  }
  std::size_t taken = 0;
  for (int i = 0; i < 50; ++i) {
    settle();
    taken += one.sendSome(requests.substr(taken));
  }
  ASSERT_EQ(1U, exchanges.size());
  EXPECT_LE(server().state().bytesIn, 16384U + 8192U);
  // They are answered nevertheless.
  const std::size_t whole = taken / request.size();
  std::size_t answered = 0;
  ASSERT_TRUE(pump([&] {
    if (!exchanges.empty()) {
      auto exchange = exchanges.back();
      exchanges.clear();
      exchange->respond(emptyResponse(204));
      ++answered;
    }
    return answered < whole;
  }));
}

TEST_F(HttpServerTest, ReadsABodyAndAsksForItsLimit) {
  HttpSettings settings = local();
  std::vector<std::string> asked;
  settings.bodyLimit = [&](const HttpRequest& request) -> std::size_t {
    asked.push_back(request.path + request.body);
    return request.path == "/long" ? 3000000 : 10;
  };
  std::string body;
  start(settings, [&](const std::shared_ptr<HttpExchange>& exchange) {
    body = exchange->request().body;
    exchange->respond(emptyResponse(204));
  });
  const std::string content(2000000, 'x');
  RawClient one = client();
  one.send("POST /long HTTP/1.1\r\nHost: localhost\r\nContent-Length: 2000000\r\n\r\n" + content);
  EXPECT_EQ(204, statusOf(one.response()));
  EXPECT_TRUE(body == content);
  EXPECT_EQ(std::vector<std::string>{"/long"}, asked);
  one.send("POST /short HTTP/1.1\r\nHost: localhost\r\nContent-Length: 11\r\n\r\n");
  const std::string refused = one.untilEnd();
  EXPECT_EQ(413, statusOf(refused));
  EXPECT_EQ("close", headerOf(refused, "Connection"));
  EXPECT_EQ("application/problem+json", headerOf(refused, "Content-Type"));
  EXPECT_EQ(
      "{\"type\":\"about:blank\",\"title\":\"Payload Too Large\",\"status\":413,"
      "\"detail\":\"The body is too long.\"}\n",
      bodyOf(refused));
}

TEST_F(HttpServerTest, TheClientReadsTheRefusalOfABodyThatItStillSends) {
  start();
  RawClient one = client();
  one.send("POST / HTTP/1.1\r\nHost: localhost\r\nContent-Length: 9000000\r\n\r\n");
  one.send(std::string(3000000, 'x'));
  EXPECT_EQ(413, statusOf(one.response()));
}

TEST_F(HttpServerTest, InvitesABodyThatTheClientHoldsBack) {
  start();
  RawClient one = client();
  one.send(
      "POST / HTTP/1.1\r\nHost: localhost\r\nExpect: 100-continue\r\nContent-Length: 3\r\n\r\n");
  EXPECT_EQ("HTTP/1.1 100 Continue\r\n\r\n", one.until("\r\n\r\n"));
  one.send("abc");
  EXPECT_EQ("POST /", bodyOf(one.response()));
}

TEST_F(HttpServerTest, DoesNotInviteARefusedBody) {
  start();
  RawClient one = client();
  one.send(
      "POST / HTTP/1.1\r\nHost: localhost\r\nExpect: 100-continue\r\nContent-Length: "
      "3000000\r\n\r\n");
  EXPECT_EQ(413, statusOf(one.untilEnd()));
}

TEST_F(HttpServerTest, OneMalformedRequestEndsTheConnection) {
  start();
  const std::string answer = answerTo(
      "POST / HTTP/1.1\r\nHost: localhost\r\nContent-Length: 5\r\nTransfer-Encoding: "
      "chunked\r\n\r\n"
      "0\r\n\r\nGET /smuggled HTTP/1.1\r\nHost: localhost\r\n\r\n");
  EXPECT_EQ(400, statusOf(answer));
  EXPECT_EQ(1U, server().state().malformed);
  EXPECT_EQ(0U, server().state().requests);
  EXPECT_THAT(answer.substr(1), Not(HasSubstr("HTTP/1.1 ")));
}

TEST_F(HttpServerTest, RefusesForeignHostsAndOrigins) {
  start();
  EXPECT_EQ(421, statusOf(answerTo("GET / HTTP/1.1\r\nHost: evil.example\r\n\r\n")));
  EXPECT_EQ(400, statusOf(answerTo("GET / HTTP/1.1\r\nHost: a b\r\n\r\n")));
  EXPECT_EQ(403, statusOf(answerTo("POST / HTTP/1.1\r\nHost: localhost\r\nOrigin: "
                                   "https://evil.example\r\nContent-Length: 0\r\n\r\n")));
  EXPECT_EQ(0U, server().state().requests);
  EXPECT_EQ(3U, server().state().malformed);
}

TEST_F(HttpServerTest, TheRequestNamesItsClient) {
  start({}, keep());
  RawClient one = client();
  one.send(kGet);
  ASSERT_TRUE(pump([&] { return exchanges.empty(); }));
  const HttpRequest& request = exchanges[0]->request();
  EXPECT_EQ("127.0.0.1", request.peer);
  EXPECT_NE(0, request.peerPort);
  EXPECT_FALSE(request.tls);
  EXPECT_EQ("", request.clientCertificate);
}

TEST_F(HttpServerTest, AnUnansweredRequestIsAnsweredWhenItIsReleased) {
  start({}, keep());
  RawClient one = client();
  one.send(kGet);
  ASSERT_TRUE(pump([&] { return exchanges.empty(); }));
  exchanges.clear();
  EXPECT_EQ(500, statusOf(one.response()));
}

TEST_F(HttpServerTest, TheSecondAnswerIsIgnored) {
  start({}, keep());
  RawClient one = client();
  one.send(std::string(kGet) + kGet);
  ASSERT_TRUE(pump([&] { return exchanges.empty(); }));
  exchanges[0]->respond(textResponse(200, "first"));
  exchanges[0]->respond(textResponse(200, "second"));
  EXPECT_FALSE(exchanges[0]->startEvents()->send("", "", "x"));
  EXPECT_EQ("first", bodyOf(one.response()));
  ASSERT_TRUE(pump([&] { return exchanges.size() < 2; }));
  exchanges[0]->respond(textResponse(200, "third"));
  exchanges[1]->respond(textResponse(200, "fourth"));
  EXPECT_EQ("fourth", bodyOf(one.response()));
  EXPECT_EQ("/a", exchanges[0]->request().path);
}

TEST_F(HttpServerTest, TellsWhenTheClientGoes) {
  start({}, keep());
  RawClient one = client();
  one.send(kGet);
  ASSERT_TRUE(pump([&] { return exchanges.empty(); }));
  bool gone = false;
  exchanges[0]->onGone([&] { gone = true; });
  settle();
  EXPECT_FALSE(gone);
  EXPECT_FALSE(exchanges[0]->gone());
  one.reset();
  ASSERT_TRUE(pump([&] { return !gone; }));
  EXPECT_TRUE(exchanges[0]->gone());
  bool late = false;
  exchanges[0]->onGone([&] { late = true; });
  EXPECT_FALSE(late) << "not within the call";
  ASSERT_TRUE(pump([&] { return !late; }));
  exchanges[0]->respond(emptyResponse(200));
  EXPECT_EQ(0U, server().state().connections);
}

TEST_F(HttpServerTest, AnswersAClientThatOnlyStoppedSending) {
  start({}, keep());
  RawClient one = client();
  one.send(kGet);
  ASSERT_TRUE(pump([&] { return exchanges.empty(); }));
  one.shutdownSending();
  ASSERT_TRUE(pump([&] { return !exchanges[0]->gone(); }));
  exchanges[0]->respond(textResponse(200, "late"));
  EXPECT_EQ("late", bodyOf(one.untilEnd()));
}

TEST_F(HttpServerTest, TheTimeForAHeaderIsLimited) {
  HttpSettings settings = local();
  settings.headerTimeout = milliseconds(150);
  settings.idleTimeout = milliseconds(60000);
  start(settings);
  RawClient slow = client();
  RawClient silent = client();
  const auto begin = std::chrono::steady_clock::now();
  std::string answer;
  for (char byte : std::string("GET / HTTP/1.1\r\nX: ") + std::string(100000, 'a')) {
    if (slow.ended()) {
      break;
    }
    slow.sendSome(std::string(1, byte));
    runFor(milliseconds(5));
  }
  EXPECT_EQ(408, statusOf(slow.untilEnd()));
  EXPECT_EQ("", silent.untilEnd());
  EXPECT_GE(std::chrono::steady_clock::now() - begin, milliseconds(150));
}

TEST_F(HttpServerTest, TheTimeBetweenRequestsIsLimited) {
  HttpSettings settings = local();
  settings.idleTimeout = milliseconds(100);
  start(settings);
  RawClient one = client();
  one.send(kGet);
  EXPECT_EQ(200, statusOf(one.response()));
  EXPECT_EQ("", one.untilEnd());
}

TEST_F(HttpServerTest, TheSecondHeaderHasATimeLimitFromItsFirstByte) {
  HttpSettings settings = local();
  settings.headerTimeout = milliseconds(200);
  start(settings);
  RawClient one = client();
  one.send(kGet);
  EXPECT_EQ(200, statusOf(one.response()));
  runFor(milliseconds(300));
  EXPECT_FALSE(one.ended());
  one.send("GET");
  EXPECT_EQ(408, statusOf(one.untilEnd()));
}

TEST_F(HttpServerTest, ABodyMustMakeProgress) {
  HttpSettings settings = local();
  settings.bodyTimeout = milliseconds(150);
  start(settings);
  RawClient one = client();
  one.send("POST / HTTP/1.1\r\nHost: localhost\r\nContent-Length: 100000\r\n\r\n" +
           std::string(99999, 'x'));
  EXPECT_EQ(408, statusOf(one.untilEnd()));
}

TEST_F(HttpServerTest, ABodyMustHaveTheLeastRate) {
  HttpSettings settings = local();
  settings.bodyTimeout = milliseconds(200);
  settings.minBodyRate = 1000;
  start(settings);
  RawClient one = client();
  one.send("POST / HTTP/1.1\r\nHost: localhost\r\nContent-Length: 100000\r\n\r\n");
  for (int i = 0; i < 2000 && !one.ended(); ++i) {
    one.sendSome("x");
    runFor(milliseconds(10));
  }
  EXPECT_EQ(408, statusOf(one.untilEnd()));
}

TEST_F(HttpServerTest, AClientThatDoesNotReadIsDropped) {
  HttpSettings settings = local();
  settings.writeTimeout = milliseconds(200);
  start(settings, [](const std::shared_ptr<HttpExchange>& exchange) {
    exchange->respond(textResponse(200, std::string(30000000, 'x')));
  });
  RawClient one = client(4096);
  one.send(kGet);
  ASSERT_TRUE(pump([&] { return server().state().connections == 0; }));
  ASSERT_TRUE(pump([&] { return server().state().connections != 0; }));
}

TEST_F(HttpServerTest, ASlowReaderIsServed) {
  HttpSettings settings = local();
  settings.writeTimeout = milliseconds(1000);
  const std::string content(20000000, 'x');
  start(settings, [&](const std::shared_ptr<HttpExchange>& exchange) {
    exchange->respond(textResponse(200, content));
  });
  RawClient one = client(65536);
  one.send(kGet);
  std::size_t count = one.until("\r\n\r\n").size();
  for (count = 0; count < content.size();) {
    const std::size_t part = std::min<std::size_t>(1000000, content.size() - count);
    ASSERT_EQ(part, one.bytes(part).size());
    count += part;
    runFor(milliseconds(80));  // longer than the limit, together
  }
}

TEST_F(HttpServerTest, TheNumberOfConnectionsIsLimited) {
  HttpSettings settings = local();
  settings.maxConnections = 3;
  start(settings);
  std::vector<RawClient> clients;
  for (int i = 0; i < 3; ++i) {
    clients.push_back(client());
    clients.back().send(kGet);
    EXPECT_EQ(200, statusOf(clients.back().response()));
  }
  RawClient surplus = client();
  EXPECT_EQ("", surplus.untilEnd());
  EXPECT_EQ(1U, server().state().refused);
  clients[0].close();
  ASSERT_TRUE(pump([&] { return server().state().connections == 3; }));
  RawClient next = client();
  next.send(kGet);
  EXPECT_EQ(200, statusOf(next.response()));
}

TEST_F(HttpServerTest, TheNumberOfConnectionsOfAClientIsLimited) {
  HttpSettings settings = local();
  settings.listeners = {{"127.0.0.1", 0, false}, {"::1", 0, false}};
  settings.maxConnectionsOfPeer = 1;
  start(settings);
  RawClient one = client();
  one.send(kGet);
  EXPECT_EQ(200, statusOf(one.response()));
  RawClient surplus = client();
  EXPECT_EQ("", surplus.untilEnd());
  RawClient six([this](const std::function<bool()>& pending) { return pump(pending); },
                server().port(1), "::1");
  six.send("GET /six HTTP/1.1\r\nHost: [::1]\r\n\r\n");
  EXPECT_EQ("GET /six", bodyOf(six.response()));
}

TEST_F(HttpServerTest, WaitsForFreeDescriptorsWithoutSpinning) {
  HttpSettings settings = local();
  std::vector<std::string> problems;
  settings.problem = [&](const std::string& text) { problems.push_back(text); };
  start(settings);
  RawClient one = client();  // in the kernel's queue
  rlimit before{};
  getrlimit(RLIMIT_NOFILE, &before);
  const int next = dup(0);
  close(next);
  const rlimit none{static_cast<rlim_t>(next), before.rlim_max};
  setrlimit(RLIMIT_NOFILE, &none);
  timespec used{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &used);
  const auto processor = [&] {
    timespec now{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return milliseconds((now.tv_sec - used.tv_sec) * 1000 + (now.tv_nsec - used.tv_nsec) / 1000000);
  };
  runFor(milliseconds(500));
  EXPECT_LT(processor(), milliseconds(250));
  setrlimit(RLIMIT_NOFILE, &before);
  one.send(kGet);
  EXPECT_EQ(200, statusOf(one.response()));
  ASSERT_EQ(1U, problems.size());
  EXPECT_EQ("cannot accept connections of HTTP: Too many open files", problems[0]);
}

TEST_F(HttpServerTest, ListensOnTheLoopbackOnlyWithoutTls) {
  for (const char* address : {"0.0.0.0", "::", "192.0.2.1", "localhost"}) {
    HttpSettings settings;
    settings.listeners = {{"127.0.0.1", 0, false}, {address, 4000, false}};
    HttpServer refused(context(), settings, keep());
    const auto opened = refused.open();
    ASSERT_FALSE(opened.ok());
    EXPECT_THAT(opened.error().text(),
                StartsWith("without TLS the gateway listens on the loopback only, not on "));
  }
}

TEST_F(HttpServerTest, RefusesAnAddressInUse) {
  start();
  HttpSettings settings;
  settings.listeners = {{"127.0.0.1", server().port(), false}};
  HttpServer second(context(), settings, keep());
  const auto opened = second.open();
  ASSERT_FALSE(opened.ok());
  EXPECT_EQ(
      "cannot listen on 127.0.0.1:" + std::to_string(server().port()) + ": Address already in use",
      opened.error().text());
}

TEST_F(HttpServerTest, DescriptorsCloseOnExec) {
  start({}, keep());
  RawClient one = client();
  one.send(kGet);
  ASSERT_TRUE(pump([&] { return exchanges.empty(); }));
  int checked = 0;
  for (int fd = 3; fd < 100; ++fd) {
    sockaddr_storage address{};
    socklen_t size = sizeof address;
    if (fd != one.fd() && getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size) == 0 &&
        address.ss_family == AF_INET) {
      EXPECT_NE(0, fcntl(fd, F_GETFD) & FD_CLOEXEC) << fd;
      ++checked;
    }
  }
  EXPECT_EQ(2, checked);
}

TEST_F(HttpServerTest, StopsAfterTheAnswersThatAreUnderWay) {
  start({}, keep());
  RawClient idle = client();
  RawClient busy = client();
  busy.send(kGet);
  ASSERT_TRUE(pump([&] { return exchanges.empty() || server().state().connections < 2; }));
  bool stopped = false;
  stopServer([&] { stopped = true; });
  EXPECT_EQ("", idle.untilEnd());
  idle.close();
  settle();
  EXPECT_FALSE(stopped);
  exchanges[0]->respond(textResponse(200, "last"));
  const std::string answer = busy.untilEnd();
  EXPECT_EQ("last", bodyOf(answer));
  EXPECT_EQ("close", headerOf(answer, "Connection"));
  busy.close();
  EXPECT_TRUE(pump([&] { return !stopped; }));
}

TEST_F(HttpServerTest, StopsInTimeWithoutAnAnswer) {
  HttpSettings settings = local();
  settings.drainTimeout = milliseconds(100);
  start(settings, keep());
  RawClient one = client();
  one.send(kGet);
  ASSERT_TRUE(pump([&] { return exchanges.empty(); }));
  bool gone = false;
  bool stopped = false;
  exchanges[0]->onGone([&] { gone = true; });
  stopServer([&] { stopped = true; });
  EXPECT_TRUE(pump([&] { return !stopped || !gone; }));
  EXPECT_EQ(0U, server().state().connections);
}

TEST_F(HttpServerTest, StopsWithoutConnections) {
  start();
  bool stopped = false;
  stopServer([&] { stopped = true; });
  EXPECT_FALSE(stopped) << "not within the call";
  EXPECT_TRUE(pump([&] { return !stopped; }));
}

TEST_F(HttpServerTest, MayBeDestroyedAtAnyTime) {
  start({}, keep());
  RawClient one = client();
  RawClient partial = client();
  one.send(kGet);
  partial.send("POST / HTTP/1.1\r\nHost: localhost\r\nContent-Length: 10\r\n\r\nabc");
  ASSERT_TRUE(pump([&] { return exchanges.empty() || server().state().connections < 2; }));
  bool gone = false;
  exchanges[0]->onGone([&] { gone = true; });
  destroyServer();
  settle();
  EXPECT_FALSE(gone);
  EXPECT_TRUE(exchanges[0]->gone());
  exchanges[0]->respond(emptyResponse(200));
  EXPECT_EQ("", one.untilEnd());
}

}  // namespace
}  // namespace runelgw::test
