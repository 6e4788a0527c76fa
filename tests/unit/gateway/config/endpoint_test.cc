// SPDX-License-Identifier: Apache-2.0
// Addresses to listen on.
#include "gateway/config/endpoint.h"

#include <string>

#include <gtest/gtest.h>

namespace runelgw {
namespace {

TEST(EndpointTest, ReadsWhatItWrites) {
  for (const std::string text : {"0.0.0.0:5112", "127.0.0.1:0", "[::1]:8080", "[::]:65535"}) {
    const auto endpoint = parseEndpoint(text);
    ASSERT_TRUE(endpoint) << text;
    EXPECT_EQ(textOf(*endpoint), text);
  }
}

TEST(EndpointTest, RefusesWhatIsNoAddressWithAPort) {
  for (const std::string text :
       {"", ":", "5112", "127.0.0.1", "127.0.0.1:", "127.0.0.1:65536", "127.0.0.1:-1",
        "127.0.0.1:+1", "127.0.0.1:1x", "127.0.0.1:100000", "localhost:80", "::1:80", "[::1]",
        "[127.0.0.1]:80", "[]:80", "[:80", "256.0.0.1:80", " 127.0.0.1:80"}) {
    EXPECT_FALSE(parseEndpoint(text)) << text;
  }
  EXPECT_FALSE(parseEndpoint(std::string("127.0.0.1\0:80", 13)));
}

TEST(EndpointTest, KnowsTheLoopback) {
  EXPECT_TRUE(isLoopback({"127.0.0.1", 1}));
  EXPECT_TRUE(isLoopback({"127.8.9.10", 1}));
  EXPECT_TRUE(isLoopback({"::1", 1}));
  EXPECT_FALSE(isLoopback({"0.0.0.0", 1}));
  EXPECT_FALSE(isLoopback({"12.7.0.1", 1}));
  EXPECT_FALSE(isLoopback({"::", 1}));
  EXPECT_FALSE(isLoopback({"::ffff:192.0.2.1", 1}));
}

}  // namespace
}  // namespace runelgw
