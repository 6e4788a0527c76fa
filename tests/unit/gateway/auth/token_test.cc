// SPDX-License-Identifier: Apache-2.0
#include "gateway/auth/token.h"

#include <set>
#include <string>

#include <gtest/gtest.h>

namespace runelgw {
namespace {

constexpr std::int64_t kMade = 1700000000000;
constexpr std::int64_t kTokenDay = 86400000;

TokenWish wish() {
  TokenWish wish;
  wish.name = "ci";
  wish.role = Role::deviceOperator;
  return wish;
}

TEST(TokenTest, HasItsFormAndIsNeverTheSame) {
  std::set<std::string> seen;
  std::set<char> lastCharacters;
  for (int round = 0; round < 300; ++round) {
    const auto token = makeToken(wish(), 1, kMade);
    ASSERT_TRUE(token);
    EXPECT_TRUE(looksLikeToken(token->secret)) << token->secret;
    EXPECT_TRUE(seen.insert(token->secret).second);
    lastCharacters.insert(token->secret.back());
  }
  // 43 characters hold 258 bits: the last two are zero.
  EXPECT_LE(lastCharacters.size(), 16U);
  EXPECT_GE(lastCharacters.size(), 12U);
}

TEST(TokenTest, RefusesOtherTexts) {
  const std::string token = makeToken(wish(), 1, kMade)->secret;
  EXPECT_FALSE(looksLikeToken(token.substr(1)));
  EXPECT_FALSE(looksLikeToken(token + "A"));
  EXPECT_FALSE(looksLikeToken("RGW_" + token.substr(4)));
  EXPECT_FALSE(looksLikeToken(token.substr(0, 46) + "+"));
  EXPECT_FALSE(looksLikeToken(token.substr(0, 46) + "\n"));
  EXPECT_FALSE(looksLikeToken(""));
}

TEST(TokenTest, KeepsOnlyTheHash) {
  const auto token = makeToken(wish(), 7, kMade);
  ASSERT_TRUE(token);
  EXPECT_EQ(token->record.hash, hashOf(token->secret));
  EXPECT_EQ(token->record.hash.size(), 64U);
  EXPECT_EQ(token->record.id, 7U);
  EXPECT_EQ(token->record.role, "operator");
  EXPECT_EQ(token->record.created, kMade);
  EXPECT_EQ(token->record.expires, kMade + 90 * kTokenDay);
  EXPECT_EQ(hashOf("abc"), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
}

TEST(TokenTest, ACertificateHasNoSecretAndNoTokenHasItsHash) {
  TokenWish forCertificate = wish();
  forCertificate.certificate = "build.example";
  const auto token = makeToken(forCertificate, 1, kMade);
  ASSERT_TRUE(token);
  EXPECT_EQ(token->secret, "");
  EXPECT_EQ(certificateOf(token->record), "build.example");
  EXPECT_EQ(certificateOf(makeToken(wish(), 1, kMade)->record), "");
  EXPECT_EQ(hashOf("x").find(':'), std::string::npos);
}

TEST(TokenTest, NamesAreSafeInLogsAndFiles) {
  for (const char* good : {"a", "ci", "CI_2.b-c", "_x", "9"}) {
    EXPECT_TRUE(isTokenName(good)) << good;
  }
  for (const std::string& bad :
       {std::string(), std::string("."), std::string("-a"), std::string("a b"), std::string("a\n"),
        std::string("a/b"), std::string("\xc3\xa4"), std::string(1, '\0'), std::string(65, 'a')}) {
    EXPECT_FALSE(isTokenName(bad)) << bad;
  }
}

TEST(TokenTest, RefusesAWishThatCannotBe) {
  TokenWish bad = wish();
  bad.name = "a b";
  EXPECT_FALSE(makeToken(bad, 1, kMade));
  for (const std::int64_t lifetime : {std::int64_t{0}, std::int64_t{-1}, 3661 * kTokenDay}) {
    bad = wish();
    bad.lifetime = lifetime;
    EXPECT_FALSE(makeToken(bad, 1, kMade)) << lifetime;
  }
  bad = wish();
  bad.kinds = {"exec"};
  EXPECT_FALSE(makeToken(bad, 1, kMade));
  bad.kinds = {"run"};
  EXPECT_TRUE(makeToken(bad, 1, kMade));
  bad.role = Role::viewer;
  const auto refused = makeToken(bad, 1, kMade);
  ASSERT_FALSE(refused);
  EXPECT_EQ(refused.error().text(), "the role viewer has no tasks of the kind run");
}

TEST(TokenTest, IsUsableUntilItExpiresOrIsRevoked) {
  TokenRecord record = makeToken(wish(), 1, kMade)->record;
  EXPECT_TRUE(isUsable(record, record.expires - 1));
  EXPECT_FALSE(isUsable(record, record.expires));
  record.revoked = kMade;
  EXPECT_FALSE(isUsable(record, kMade));
}

TEST(TokenTest, ARecordGivesNoMoreThanItsRole) {
  TokenRecord record;
  record.role = "viewer";
  record.kinds = {"look", "run", "write"};
  EXPECT_EQ(kindsOf(record).names(), std::vector<std::string>{"look"});
  record.role = "emperor";
  EXPECT_EQ(roleOf(record), Role::viewer);
  record.role = "operator";
  record.kinds = {"read", "future"};
  EXPECT_EQ(kindsOf(record).names(), std::vector<std::string>{"read"});
  record.kinds = {"future"};
  EXPECT_EQ(kindsOf(record).names(), std::vector<std::string>{});
}

}  // namespace
}  // namespace runelgw
