// SPDX-License-Identifier: Apache-2.0
#include "gateway/http/request_reader.h"

#include <algorithm>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "gateway/http/head_check.h"

namespace runelgw {
namespace {

using State = RequestReader::State;
using testing::HasSubstr;

constexpr std::size_t kHeaderLimit = 1000;
constexpr std::size_t kBodyLimit = 100;

struct Outcome {
  State state;
  HttpRequest request;
  HttpRefusal refusal;
  std::string rest;
};

// Reads @p bytes in pieces of @p size.
Outcome readInPieces(const std::string& bytes, std::size_t size) {
  RequestReader reader(kHeaderLimit);
  std::string input;
  for (std::size_t place = 0; place < bytes.size(); place += size) {
    input += bytes.substr(place, size);
    State state = reader.read(input);
    if (state == State::headRead) {
      state = reader.readBody(kBodyLimit);
      if (state == State::body) {
        state = reader.read(input);
      }
    }
    if (state == State::complete || state == State::refused) {
      input += bytes.substr(std::min(place + size, bytes.size()));
      break;
    }
  }
  return {reader.state(), reader.request(), reader.refusal(), input};
}

Outcome read(const std::string& bytes) {
  return readInPieces(bytes, bytes.size());
}

std::string get(const std::string& target, const std::string& headers = "Host: a\r\n") {
  return "GET " + target + " HTTP/1.1\r\n" + headers + "\r\n";
}

std::string post(const std::string& headers, const std::string& body) {
  return "POST /x HTTP/1.1\r\nHost: a\r\n" + headers + "\r\n" + body;
}

TEST(RequestReaderTest, ReadsARequestWithoutABody) {
  const auto outcome =
      read(get("/v1/devices?state=offline", "Host: a:80\r\nX-Two:\t 1 2 \r\n") + "GET");
  ASSERT_EQ(State::complete, outcome.state);
  EXPECT_EQ("GET", outcome.request.method);
  EXPECT_EQ("/v1/devices?state=offline", outcome.request.target);
  EXPECT_EQ("/v1/devices", outcome.request.path);
  EXPECT_EQ((HttpFields{{"state", "offline"}}), outcome.request.query);
  EXPECT_EQ("a:80", outcome.request.host);
  EXPECT_EQ((HttpFields{{"host", "a:80"}, {"x-two", "1 2"}}), outcome.request.headers);
  EXPECT_EQ("", outcome.request.body);
  EXPECT_EQ("GET", outcome.rest);
}

TEST(RequestReaderTest, ReadsBodiesInPiecesOfAnySize) {
  const std::vector<std::string> requests = {
      post("Content-Length: 11\r\n", "hello world") + "REST",
      post("Transfer-Encoding: chunked\r\n", "5\r\nhello\r\n6;a=b\r\n world\r\n0\r\n\r\n") + "REST",
      post("Transfer-Encoding: Chunked\r\n", "B\r\nhello world\r\n0\r\nX: 3\r\nHost-2: b\r\n\r\n") +
          "REST",
  };
  for (const std::string& request : requests) {
    for (std::size_t size = 1; size <= request.size(); ++size) {
      const auto outcome = readInPieces(request, size);
      ASSERT_EQ(State::complete, outcome.state) << request << outcome.refusal.text << size;
      EXPECT_EQ("hello world", outcome.request.body);
      EXPECT_EQ("REST", outcome.rest) << size;
      EXPECT_EQ("a", *outcome.request.header("host"));
      EXPECT_EQ(2, static_cast<int>(outcome.request.headers.size())) << "a trailer is no header";
    }
  }
}

TEST(RequestReaderTest, ReadsOneRequestAfterTheOther) {
  RequestReader reader(kHeaderLimit);
  std::string input = post("Content-Length: 2\r\n", "ab") + get("/2");
  ASSERT_EQ(State::headRead, reader.read(input));
  ASSERT_EQ(State::body, reader.readBody(kBodyLimit));
  ASSERT_EQ(State::complete, reader.read(input));
  EXPECT_TRUE(reader.keepAlive());
  reader.next();
  ASSERT_EQ(State::headRead, reader.read(input));
  EXPECT_EQ("/2", reader.request().path);
  EXPECT_EQ("", reader.request().body);
  ASSERT_EQ(State::complete, reader.readBody(kBodyLimit));
  reader.next();
  EXPECT_EQ(State::head, reader.read(input));
}

struct Refused {
  const char* name;
  std::string bytes;
  unsigned status;
};

std::vector<Refused> refusedRequests() {
  const std::string length = "Content-Length: 3\r\n";
  std::string many;
  while (many.size() < 9000) {
    many += "X: " + std::string(100, 'a') + "\r\n";
  }
  const std::string chunked = "Transfer-Encoding: chunked\r\n";
  return {
      {"both lengths", post(length + chunked, "0\r\n\r\n"), 400},
      {"both lengths, the other way", post(chunked + length, "0\r\n\r\n"), 400},
      {"two equal lengths", post(length + length, "abc"), 400},
      {"two lengths", post(length + "Content-Length: 4\r\n", "abcd"), 400},
      {"a list of lengths", post("Content-Length: 3, 3\r\n", "abc"), 400},
      {"an empty length", post("Content-Length:\r\n", "abc"), 400},
      {"a signed length", post("Content-Length: +3\r\n", "abc"), 400},
      {"a negative length", post("Content-Length: -3\r\n", "abc"), 400},
      {"a hexadecimal length", post("Content-Length: 0x3\r\n", "abc"), 400},
      {"a length of 19 digits", post("Content-Length: 9999999999999999999\r\n", "abc"), 400},
      {"a length with a unit", post("Content-Length: 3 bytes\r\n", "abc"), 400},
      {"chunked twice", post(chunked + chunked, "0\r\n\r\n"), 400},
      {"chunked in a list", post("Transfer-Encoding: chunked, chunked\r\n", "0\r\n\r\n"), 400},
      {"gzip and chunked", post("Transfer-Encoding: gzip, chunked\r\n", "0\r\n\r\n"), 400},
      {"identity", post("Transfer-Encoding: identity\r\n", "abc"), 400},
      {"chunked after a form feed", post("Transfer-Encoding: \fchunked\r\n", "0\r\n\r\n"), 400},
      {"chunked in HTTP/1.0", "POST / HTTP/1.0\r\nHost: a\r\n" + chunked + "\r\n0\r\n\r\n", 400},
      {"a blank before the colon", post("Content-Length : 3\r\n", "abc"), 400},
      {"a folded header", get("/", "Host: a\r\nX: 1\r\n 2\r\n"), 400},
      {"a folded first header", get("/", " X: 1\r\nHost: a\r\n"), 400},
      {"a header without a colon", get("/", "Host: a\r\nX\r\n"), 400},
      {"a header without a name", get("/", "Host: a\r\n: x\r\n"), 400},
      {"a line that ends with LF", "GET / HTTP/1.1\nHost: a\r\n\r\n", 400},
      {"a header that ends with LF", get("/", "Host: a\nX: 1\r\n"), 400},
      {"a CR in a value", get("/", "Host: a\r\nX: 1\r2\r\n"), 400},
      {"a zero byte in a value", get("/", "Host: a\r\nX: 1" + std::string(1, '\0') + "\r\n"), 400},
      {"a zero byte in a name", get("/", "Host: a\r\nX" + std::string(1, '\0') + ": 1\r\n"), 400},
      {"an empty line first", "\r\n" + get("/"), 400},
      {"no Host", get("/", "X: 1\r\n"), 400},
      {"two Hosts", get("/", "Host: a\r\nHost: a\r\n"), 400},
      {"an absolute target", get("http://a/"), 400},
      {"an authority as target", "CONNECT a:80 HTTP/1.1\r\nHost: a\r\n\r\n", 400},
      {"an asterisk for GET", get("*"), 400},
      {"a fragment", get("/#x"), 400},
      {"a byte above 127 in the target", get("/\xc3\xa4"), 400},
      {"two blanks after the method", "GET  / HTTP/1.1\r\nHost: a\r\n\r\n", 400},
      {"a tab after the method", "GET\t/ HTTP/1.1\r\nHost: a\r\n\r\n", 400},
      {"a method in lower case", "get / HTTP/1.1\r\nHost: a\r\n\r\n", 400},
      {"no version", "GET /\r\nHost: a\r\n\r\n", 400},
      {"another protocol", "GET / RTSP/1.0\r\nHost: a\r\n\r\n", 400},
      {"HTTP/2", "GET / HTTP/2.0\r\nHost: a\r\n\r\n", 505},
      {"HTTP/1.2", "GET / HTTP/1.2\r\nHost: a\r\n\r\n", 505},
      {"the preface of HTTP/2", "PRI * HTTP/2.0\r\n\r\nSM\r\n\r\n", 505},
      {"TLS", std::string("\x16\x03\x01\x02\x00\x01", 6), 400},
      {"an unknown expectation", post("Expect: tea\r\n" + length, "abc"), 417},
      {"a zero byte in the path", get("/a%00b"), 400},
      {"a newline in the path", get("/a%0ab"), 400},
      {"an encoded slash", get("/a%2fb"), 400},
      {"an encoded slash in capitals", get("/a%2Fb"), 400},
      {"a backslash", get("/a%5cb"), 400},
      {"two dots", get("/a/../b"), 400},
      {"two encoded dots", get("/a/%2e%2E/b"), 400},
      {"two dots at the end", get("/a/.."), 400},
      {"a dot", get("/./a"), 400},
      {"half an encoding", get("/a%4"), 400},
      {"a percent sign", get("/a%"), 400},
      {"an encoding that is none", get("/a%zz"), 400},
      {"invalid UTF-8", get("/a%ff"), 400},
      {"an overlong slash", get("/a%c0%af"), 400},
      {"invalid UTF-8 in the query", get("/a?b=%ff"), 400},
      {"a zero byte in the query", get("/a?b=%00"), 400},
      {"half an encoding in the query", get("/a?b=%2"), 400},
      {"a long body", post("Content-Length: 101\r\n", ""), 413},
      {"a long chunk", post(chunked, "65\r\n"), 413},
      {"a huge chunk", post(chunked, "ffffffffffffffff\r\n"), 413},
      {"chunks that are too long together",
       post(chunked, "32\r\n" + std::string(50, 'x') + "\r\n33\r\n"), 413},
      {"a chunk with more than 64 bits", post(chunked, "10000000000000000\r\n"), 400},
      {"a chunk without a size", post(chunked, ";\r\n"), 400},
      {"a negative chunk", post(chunked, "-1\r\n"), 400},
      {"a chunk with 0x", post(chunked, "0x1\r\nx\r\n0\r\n\r\n"), 400},
      {"a blank after a chunk's size", post(chunked, "1 \r\nx\r\n0\r\n\r\n"), 400},
      {"a zero byte in an extension", post(chunked, "1;" + std::string(1, '\0') + "\r\n"), 400},
      {"a CR in an extension", post(chunked, "1;a\rb\r\nx\r\n0\r\n\r\n"), 400},
      {"a trailer without a colon", post(chunked, "0\r\nX\r\n\r\n"), 400},
      {"a host in the trailers", post(chunked, "0\r\nHost: b\r\n\r\n"), 400},
      {"too many trailers", post(chunked, "0\r\n" + many), 400},
      {"a length in the trailers", post(chunked, "0\r\nContent-Length: 3\r\n\r\n"), 400},
      {"a folded trailer", post(chunked, "0\r\nX: 3\n 4\r\n\r\n"), 400},
      {"a chunk that ends with LF", post(chunked, "1\nx\r\n0\r\n\r\n"), 400},
      {"a chunk without its end", post(chunked, "1\r\nxx\r\n0\r\n\r\n"), 400},
      {"a chunk with an endless extension", post(chunked, "1;" + std::string(9000, 'a')), 400},
      {"endless trailers", post(chunked, "0\r\nX: " + std::string(9000, 'a')), 400},
      {"a long header", get("/", "Host: a\r\nX: " + std::string(1000, 'a') + "\r\n"), 431},
      {"a header without an end", "GET / HTTP/1.1\r\nX: " + std::string(1000, 'a'), 431},
      {"a long method", std::string(17, 'A'), 400},
  };
}

TEST(RequestReaderTest, RefusesWhatOtherProgramsMayReadInAnotherWay) {
  for (const auto& refused : refusedRequests()) {
    const auto outcome = read(refused.bytes);
    ASSERT_EQ(State::refused, outcome.state) << refused.name;
    EXPECT_EQ(refused.status, outcome.refusal.status)
        << refused.name << ": " << outcome.refusal.text;
    EXPECT_FALSE(outcome.refusal.text.empty());
  }
}

TEST(RequestReaderTest, RefusesTheSameInPieces) {
  for (const auto& refused : refusedRequests()) {
    for (const std::size_t size : {std::size_t{1}, std::size_t{2}, std::size_t{7}}) {
      const auto outcome = readInPieces(refused.bytes, size);
      ASSERT_EQ(State::refused, outcome.state) << refused.name << ' ' << size;
      EXPECT_EQ(refused.status, outcome.refusal.status) << refused.name << ' ' << size;
    }
  }
}

TEST(RequestReaderTest, ReadsNothingAfterARefusal) {
  RequestReader reader(kHeaderLimit);
  std::string input = "GET\r\n\r\n";
  ASSERT_EQ(State::refused, reader.read(input));
  input = get("/");
  EXPECT_EQ(State::refused, reader.read(input));
  EXPECT_FALSE(reader.keepAlive());
}

TEST(RequestReaderTest, RefusesTooManyHeaders) {
  std::string headers = "Host: a\r\n";
  for (int i = 0; i < 100; ++i) {
    headers += "X: 1\r\n";
  }
  RequestReader reader(10000);
  std::string input = get("/", headers);
  EXPECT_EQ(State::refused, reader.read(input));
  EXPECT_EQ(431U, reader.refusal().status);
}

TEST(RequestReaderTest, DecodesOnce) {
  const auto outcome = read(get("/a%2541/%C3%A4%20+?x%3d1=%2526+%2B&y&=z&&y=%C3%A4"));
  ASSERT_EQ(State::complete, outcome.state) << outcome.refusal.text;
  EXPECT_EQ("/a%41/\xc3\xa4 +", outcome.request.path);
  EXPECT_EQ((HttpFields{{"x=1", "%26 +"}, {"y", ""}, {"", "z"}, {"y", "\xc3\xa4"}}),
            outcome.request.query);
  EXPECT_EQ("", *outcome.request.parameter("y"));
  EXPECT_EQ(nullptr, outcome.request.parameter("absent"));
}

TEST(RequestReaderTest, AcceptsPartsWithDotsThatAreNotParents) {
  EXPECT_EQ(State::complete, read(get("/a.b/..c/.../d.")).state);
}

TEST(RequestReaderTest, AcceptsAnAsteriskForOptions) {
  const auto outcome = read("OPTIONS * HTTP/1.1\r\nHost: a\r\n\r\n");
  ASSERT_EQ(State::complete, outcome.state);
  EXPECT_EQ("*", outcome.request.target);
  EXPECT_EQ("", outcome.request.path);
}

TEST(RequestReaderTest, TellsWhetherTheConnectionStays) {
  const auto keepsAlive = [](const std::string& bytes) {
    RequestReader reader(kHeaderLimit);
    std::string input = bytes;
    EXPECT_EQ(State::headRead, reader.read(input)) << bytes;
    return reader.keepAlive();
  };
  EXPECT_TRUE(keepsAlive(get("/")));
  EXPECT_FALSE(keepsAlive(get("/", "Host: a\r\nConnection: x, Close\r\n")));
  EXPECT_FALSE(keepsAlive("GET / HTTP/1.0\r\nHost: a\r\n\r\n"));
  EXPECT_TRUE(keepsAlive("GET / HTTP/1.0\r\nHost: a\r\nConnection: keep-alive\r\n\r\n"));
}

TEST(RequestReaderTest, TellsWhetherTheClientWaits) {
  RequestReader reader(kHeaderLimit);
  std::string input = post("Expect: 100-Continue\r\nContent-Length: 3\r\n", "");
  EXPECT_EQ(State::headRead, reader.read(input));
  EXPECT_TRUE(reader.expectsContinue());
}

TEST(HttpRequestTest, FindsCookiesAndOffers) {
  HttpRequest request;
  request.headers = {{"cookie", "a=1; session=x=y;b"},
                     {"cookie", "session=2"},
                     {"upgrade", "h2c, WebSocket"},
                     {"sec-websocket-protocol", "one,  two"}};
  EXPECT_EQ("x=y", request.cookie("session"));
  EXPECT_EQ("1", request.cookie("a"));
  EXPECT_EQ(std::nullopt, request.cookie("b"));
  EXPECT_EQ(std::nullopt, request.cookie("ession"));
  EXPECT_TRUE(request.wantsWebSocket());
  EXPECT_TRUE(request.offersSubprotocol("two"));
  EXPECT_FALSE(request.offersSubprotocol("tw"));
}

}  // namespace
}  // namespace runelgw
