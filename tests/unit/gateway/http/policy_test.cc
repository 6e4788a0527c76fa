// SPDX-License-Identifier: Apache-2.0
#include "gateway/http/policy.h"

#include <string>
#include <utility>

#include <gtest/gtest.h>

namespace runelgw {
namespace {

HttpSettings settings() {
  HttpSettings settings;
  settings.names = {"Fleet.example", "port.example:8443", "2001:db8::0:1"};
  settings.origins = {"https://front.example"};
  settings.sessionCookie = "session";
  return settings;
}

struct Call {
  std::string host = "fleet.example";
  std::string method = "GET";
  HttpFields headers = {};
  bool tls = true;
  std::string local = "192.0.2.1";
};

unsigned statusOf(const Call& call) {
  HttpRequest request;
  request.method = call.method;
  request.host = call.host;
  request.headers = call.headers;
  request.tls = call.tls;
  const auto refusal = HttpPolicy(settings()).refusal(request, call.local);
  return refusal ? refusal->status : 200;
}

unsigned statusOfHost(const std::string& host, const std::string& local = "192.0.2.1") {
  return statusOf(Call{host, "GET", {}, true, local});
}

unsigned statusOfOrigin(const std::string& origin, const std::string& host = "fleet.example",
                        bool tls = true) {
  return statusOf(Call{host, "POST", {{"origin", origin}}, tls});
}

TEST(HttpPolicyTest, AnswersItsNamesOnly) {
  EXPECT_EQ(200U, statusOfHost("fleet.example"));
  EXPECT_EQ(200U, statusOfHost("FLEET.example:1"));
  EXPECT_EQ(200U, statusOfHost("port.example:8443"));
  EXPECT_EQ(421U, statusOfHost("port.example:8444"));
  EXPECT_EQ(421U, statusOfHost("port.example"));
  EXPECT_EQ(200U, statusOfHost("[2001:DB8:0::1]:80"));
  EXPECT_EQ(421U, statusOfHost("[2001:db8::2]"));
  EXPECT_EQ(421U, statusOfHost("evil.example"));
  EXPECT_EQ(421U, statusOfHost("fleet.example.evil.example"));
  EXPECT_EQ(421U, statusOfHost("xfleet.example"));
  EXPECT_EQ(421U, statusOfHost("fleet.example."));
}

TEST(HttpPolicyTest, AnswersTheAddressOfTheListener) {
  EXPECT_EQ(200U, statusOfHost("192.0.2.1:5180"));
  EXPECT_EQ(421U, statusOfHost("192.0.2.2"));
  EXPECT_EQ(421U, statusOfHost("localhost"));
  EXPECT_EQ(421U, statusOfHost("127.0.0.1"));
  EXPECT_EQ(200U, statusOfHost("localhost:5180", "127.0.0.1"));
  EXPECT_EQ(200U, statusOfHost("127.0.0.1:5180", "127.0.0.1"));
  EXPECT_EQ(200U, statusOfHost("[::1]:5180", "::1"));
  EXPECT_EQ(200U, statusOfHost("localhost", "::1"));
}

TEST(HttpPolicyTest, RefusesMalformedHosts) {
  for (const char* host :
       {"", ":80", "a b", "a/b", "a@fleet.example", "fleet.example:", "fleet.example:x",
        "fleet.example:65536", "fleet.example:-1", "[::1", "::1", "[]", "[fleet.example]", "[::1]x",
        "fleet.example, evil.example", "fleet%2eexample"}) {
    EXPECT_EQ(400U, statusOfHost(host, "::1")) << host;
  }
}

TEST(HttpPolicyTest, AcceptsTheSameOriginOnly) {
  EXPECT_EQ(200U, statusOfOrigin("https://fleet.example"));
  EXPECT_EQ(200U, statusOfOrigin("https://Fleet.Example:443"));
  EXPECT_EQ(200U, statusOfOrigin("https://fleet.example:8443", "fleet.example:8443"));
  EXPECT_EQ(200U, statusOfOrigin("http://fleet.example", "fleet.example:80", false));
  EXPECT_EQ(200U, statusOfOrigin("https://front.example"));
  EXPECT_EQ(403U, statusOfOrigin("https://port.example:8443"));
  EXPECT_EQ(403U, statusOfOrigin("http://fleet.example"));
  EXPECT_EQ(403U, statusOfOrigin("https://fleet.example", "fleet.example", false));
  EXPECT_EQ(403U, statusOfOrigin("https://fleet.example:8443"));
  EXPECT_EQ(403U, statusOfOrigin("https://fleet.example.evil.example"));
  EXPECT_EQ(403U, statusOfOrigin("https://evil.example/https://fleet.example"));
  EXPECT_EQ(403U, statusOfOrigin("https://fleet.example/"));
  EXPECT_EQ(403U, statusOfOrigin("https://x@fleet.example"));
  EXPECT_EQ(403U, statusOfOrigin("null"));
  EXPECT_EQ(403U, statusOfOrigin(""));
}

TEST(HttpPolicyTest, AsksForTheOriginOfWhatChangesSomething) {
  const HttpFields foreign = {{"origin", "https://evil.example"}};
  for (const char* method : {"POST", "PUT", "PATCH", "DELETE", "TRACE", "ANY"}) {
    EXPECT_EQ(403U, statusOf({"fleet.example", method, foreign})) << method;
  }
  for (const char* method : {"GET", "HEAD", "OPTIONS"}) {
    EXPECT_EQ(200U, statusOf({"fleet.example", method, foreign})) << method;
  }
}

TEST(HttpPolicyTest, AsksForTheOriginOfWebSockets) {
  EXPECT_EQ(403U, statusOf({"fleet.example",
                            "GET",
                            {{"upgrade", "websocket"}, {"origin", "https://evil.example"}}}));
  EXPECT_EQ(200U, statusOf({"fleet.example",
                            "GET",
                            {{"upgrade", "websocket"}, {"origin", "https://fleet.example"}}}));
  EXPECT_EQ(200U, statusOf({"fleet.example", "GET", {{"upgrade", "websocket"}}}));
  EXPECT_EQ(
      403U,
      statusOf({"fleet.example", "GET", {{"upgrade", "websocket"}, {"cookie", "session=1"}}}));
}

TEST(HttpPolicyTest, AcceptsProgramsButNoSessionWithoutAnOrigin) {
  EXPECT_EQ(200U, statusOf({"fleet.example", "POST", {}}));
  EXPECT_EQ(200U, statusOf({"fleet.example", "POST", {{"cookie", "other=1"}}}));
  EXPECT_EQ(403U, statusOf({"fleet.example", "POST", {{"cookie", "session=1"}}}));
  EXPECT_EQ(200U, statusOf({"fleet.example", "GET", {{"cookie", "session=1"}}}));
  EXPECT_EQ(403U,
            statusOf({"fleet.example",
                      "POST",
                      {{"origin", "https://fleet.example"}, {"origin", "https://evil.example"}}}));
}

TEST(HttpPolicyTest, KnowsTheLoopback) {
  EXPECT_TRUE(isLoopback("127.0.0.1"));
  EXPECT_TRUE(isLoopback("127.255.0.9"));
  EXPECT_TRUE(isLoopback("::1"));
  EXPECT_FALSE(isLoopback("128.0.0.1"));
  EXPECT_FALSE(isLoopback("0.0.0.0"));
  EXPECT_FALSE(isLoopback("::"));
  EXPECT_FALSE(isLoopback("::ffff:127.0.0.1"));
  EXPECT_FALSE(isLoopback("localhost"));
}

}  // namespace
}  // namespace runelgw
