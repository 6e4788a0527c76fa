// SPDX-License-Identifier: Apache-2.0
#include "gateway/gateway_settings.h"

#include <cstdlib>
#include <fstream>
#include <string>
#include <utility>

#include <sys/stat.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace runelctl {
namespace {

using testing::HasSubstr;

TEST(GatewayUrlTest, HasAHostAndAPort) {
  const auto url = GatewayUrl::parse("https://fleet.example:5180/");
  ASSERT_TRUE(url);
  EXPECT_TRUE(url->tls);
  EXPECT_EQ(url->host, "fleet.example");
  EXPECT_EQ(url->port, 5180);
  EXPECT_EQ(url->text(), "https://fleet.example:5180");
  EXPECT_EQ(GatewayUrl::parse("https://fleet.example")->port, 443);
  EXPECT_EQ(GatewayUrl::parse("https://fleet.example:443")->authority(), "fleet.example");
  EXPECT_EQ(GatewayUrl::parse("https://[::1]:7")->host, "::1");
  EXPECT_EQ(GatewayUrl::parse("https://[2001:db8::1]")->authority(), "[2001:db8::1]");
}

TEST(GatewayUrlTest, RefusesOtherTexts) {
  for (const char* text :
       {"", "fleet.example", "ftp://fleet.example", "https://", "https://:443", "https://a:0",
        "https://a:70000", "https://a:b", "https://user@a", "https://a/path", "https://a?b",
        "https://[::1", "https://[::1]x", "https://[a]", "https://a b", "https:/a", "HTTPS://a"}) {
    EXPECT_FALSE(GatewayUrl::parse(text)) << text;
  }
}

TEST(GatewayUrlTest, WithoutTlsOnlyTheLoopback) {
  for (const char* text :
       {"http://127.0.0.1:8080", "http://localhost", "http://[::1]:8080", "http://127.9.9.9"}) {
    EXPECT_TRUE(GatewayUrl::parse(text)) << text;
  }
  for (const char* text : {"http://fleet.example", "http://192.0.2.1", "http://localhost.example",
                           "http://0.0.0.0", "http://127.0.0.1.example"}) {
    const auto url = GatewayUrl::parse(text);
    ASSERT_FALSE(url) << text;
    EXPECT_THAT(url.error().text(), HasSubstr("needs https")) << text;
  }
}

class TokenTest : public testing::Test {
 protected:
  TokenTest() {
    char name[] = "/tmp/ctl_gateway.XXXXXX";
    directory = mkdtemp(name);
    unsetenv("RUNELCTL_TOKEN");
    setenv("XDG_CONFIG_HOME", directory.c_str(), 1);
  }
  ~TokenTest() override {
    for (const std::string file : {"/token", "/runelctl/token", "/cert"}) {
      unlink((directory + file).c_str());
    }
    rmdir((directory + "/runelctl").c_str());
    rmdir(directory.c_str());
    unsetenv("RUNELCTL_TOKEN");
    unsetenv("XDG_CONFIG_HOME");
  }
  std::string write(const std::string& name, const std::string& text, mode_t mode = 0600) {
    std::ofstream(directory + name) << text;
    chmod((directory + name).c_str(), mode);
    return directory + name;
  }
  static std::string tokenOf(const GatewayOptions& options) {
    const auto settings = gatewaySettings(options);
    return settings ? settings->token : "error: " + settings.error().text();
  }

  std::string directory;
  GatewayOptions options{"https://fleet.example", "", "", "", ""};
};

TEST_F(TokenTest, IsReadFromAFile) {
  options.tokenFile = write("/token", "rgw_abc\n");
  setenv("RUNELCTL_TOKEN", "other", 1);
  EXPECT_EQ(tokenOf(options), "rgw_abc");
}

TEST_F(TokenTest, IsReadFromTheEnvironmentThenFromTheUsualFile) {
  EXPECT_THAT(tokenOf(options), HasSubstr("no token for the gateway"));
  mkdir((directory + "/runelctl").c_str(), 0700);
  write("/runelctl/token", "usual");
  EXPECT_EQ(tokenOf(options), "usual");
  setenv("RUNELCTL_TOKEN", "given", 1);
  EXPECT_EQ(tokenOf(options), "given");
}

TEST_F(TokenTest, AFileOfOthersIsRefused) {
  for (const mode_t mode : {0640U, 0604U, 0620U, 0644U}) {
    const auto token = readToken(write("/token", "rgw_abc", mode));
    ASSERT_FALSE(token) << mode;
    EXPECT_THAT(token.error().text(), HasSubstr("chmod 600")) << mode;
  }
  const std::string path = write("/token", "rgw_abc");
  ASSERT_EQ(chown(path.c_str(), 12345, 12345), 0);
  EXPECT_THAT(readToken(path).error().text(), HasSubstr("not a file of this user"));
  EXPECT_THAT(readToken("/dev/null").error().text(), HasSubstr("not a file of this user"));
  EXPECT_THAT(readToken("/none").error().text(), HasSubstr("/none: "));
}

TEST_F(TokenTest, ATokenIsOneWord) {
  for (const std::string& text : {std::string(), std::string("\n"), std::string("a b"),
                                  std::string("a\nb"), std::string("a\x7f"), std::string(5000, 'a'),
                                  std::string("a\0b", 3), std::string("\xc3\xa9")}) {
    EXPECT_FALSE(readToken(write("/token", text))) << text;
  }
  setenv("RUNELCTL_TOKEN", "a\r\nHost: b", 1);
  EXPECT_THAT(tokenOf(options), HasSubstr("RUNELCTL_TOKEN: not a token"));
}

TEST_F(TokenTest, ACertificateTakesItsPlace) {
  options.certificateFile = write("/cert", "PEM");
  const auto settings = gatewaySettings(options);
  ASSERT_TRUE(settings);
  EXPECT_EQ(settings->token, "");
  EXPECT_EQ(settings->keyFile, options.certificateFile);
  options.caFile = "/none";
  EXPECT_THAT(tokenOf(options), HasSubstr("/none: "));
}

}  // namespace
}  // namespace runelctl
