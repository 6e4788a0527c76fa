// SPDX-License-Identifier: Apache-2.0
#include "gateway/auth/auth.h"

#include <chrono>
#include <memory>
#include <string>
#include <variant>

#include <gtest/gtest.h>

#include "fakes/gateway/fake_store.h"

namespace runelgw {
namespace {

using std::chrono::hours;
using std::chrono::minutes;
using std::chrono::seconds;

constexpr std::int64_t kDay = 86400000;

class AuthTest : public testing::Test {
 protected:
  AuthTest() { restart(); }

  void restart() {
    auth_ = std::make_unique<Auth>(
        settings_, store_, AuthClocks{[this] { return wall_; }, [this] { return steady_; }});
    std::vector<TokenRecord> tokens;
    for (const auto& [id, token] : store_.tokens) {
      tokens.push_back(token);
    }
    auth_->load(tokens, 1);
  }

  NewToken create(const std::string& name, Role role = Role::deviceOperator,
                  const std::string& certificate = "") {
    TokenWish wish;
    wish.name = name;
    wish.role = role;
    wish.certificate = certificate;
    std::optional<runel::Result<NewToken>> made;
    auth_->create(wish, [&](runel::Result<NewToken> token) { made = std::move(token); });
    store_.run();
    EXPECT_TRUE(made && *made) << name;
    return made && *made ? **made : NewToken();
  }

  Auth::Answer bearer(const std::string& token, const std::string& peer = "192.0.2.1") {
    Credentials credentials;
    credentials.authorization = "Bearer " + token;
    credentials.peer = peer;
    return auth_->authenticate(credentials);
  }

  Auth::Answer cookie(const std::string& session) {
    Credentials credentials;
    credentials.session = session;
    credentials.peer = "192.0.2.1";
    return auth_->authenticate(credentials);
  }

  std::string login(const std::string& secret) {
    auto session = auth_->login(secret, "192.0.2.1");
    EXPECT_TRUE(std::holds_alternative<std::string>(session));
    return std::holds_alternative<std::string>(session) ? std::get<std::string>(session) : "";
  }

  void pass(runel::Clock::duration time) {
    steady_ += time;
    wall_ += std::chrono::duration_cast<std::chrono::milliseconds>(time).count();
  }

  static bool accepted(const Auth::Answer& answer) {
    return std::holds_alternative<Identity>(answer);
  }
  static unsigned statusOf(const Auth::Answer& answer) {
    return accepted(answer) ? 200 : std::get<AuthRefusal>(answer).status;
  }

  std::int64_t wall_ = 1700000000000;
  runel::Clock::time_point steady_ = runel::Clock::time_point() + hours(1);
  AuthSettings settings_;
  FakeStore store_;
  std::unique_ptr<Auth> auth_;
};

TEST_F(AuthTest, ATokenIsAcceptedAlsoAfterARestart) {
  const NewToken token = create("ci");
  ASSERT_TRUE(accepted(bearer(token.secret)));
  restart();
  const Auth::Answer answer = bearer(token.secret);
  ASSERT_TRUE(accepted(answer));
  EXPECT_EQ(std::get<Identity>(answer).label(), "token ci");
  EXPECT_EQ(std::get<Identity>(answer).role, Role::deviceOperator);
  EXPECT_EQ(create("next").record.id, token.record.id + 1);
}

TEST_F(AuthTest, ANewTokenIsStoredBeforeItIsUsed) {
  const NewToken token = create("ci", Role::admin);
  const TokenRecord& stored = store_.tokens[token.record.id];
  EXPECT_EQ(stored.hash, hashOf(token.secret));
  EXPECT_EQ(stored.name, "ci");
  EXPECT_EQ(stored.role, "admin");
  EXPECT_EQ(stored.expires, token.record.expires);
}

TEST_F(AuthTest, RefusesWithoutAnythingThatTheClientSent) {
  create("ci");
  for (const std::string& text :
       {std::string(), std::string("x"), std::string("rgw_") + std::string(43, 'A')}) {
    const Auth::Answer answer = bearer(text, "peer" + text);
    ASSERT_FALSE(accepted(answer)) << text;
    EXPECT_EQ(statusOf(answer), 401U);
    EXPECT_EQ(std::get<AuthRefusal>(answer).text.find("rgw_"), std::string::npos);
  }
}

TEST_F(AuthTest, OnlyTheSchemeBearerIsAToken) {
  const NewToken token = create("ci");
  Credentials credentials;
  for (const std::string scheme : {"Basic ", "Bearer", "", "Bearer x "}) {
    credentials.authorization = scheme + token.secret;
    EXPECT_FALSE(accepted(auth_->authenticate(credentials))) << scheme;
  }
  for (const std::string scheme : {"bearer ", "BEARER   "}) {
    credentials.authorization = scheme + token.secret;
    EXPECT_TRUE(accepted(auth_->authenticate(credentials))) << scheme;
  }
}

TEST_F(AuthTest, ARefusedHeaderIsNotOutweighedByACookieOrACertificate) {
  const NewToken token = create("ci");
  create("build", Role::admin, "build.example");
  Credentials credentials;
  credentials.session = login(token.secret);
  credentials.certificate = "build.example";
  ASSERT_TRUE(accepted(auth_->authenticate(credentials)));
  credentials.authorization = "Bearer wrong";
  EXPECT_FALSE(accepted(auth_->authenticate(credentials)));
}

TEST_F(AuthTest, AnExpiredTokenIsRefused) {
  const NewToken token = create("ci");
  wall_ += 90 * kDay - 1;
  EXPECT_TRUE(accepted(bearer(token.secret)));
  wall_ += 1;
  EXPECT_FALSE(accepted(bearer(token.secret)));
}

TEST_F(AuthTest, ARevokedTokenAndItsSessionsEndAtOnce) {
  const NewToken token = create("ci");
  const NewToken other = create("other");
  const std::string session = login(token.secret);
  const std::string kept = login(other.secret);
  const Auth::Answer before = cookie(session);
  ASSERT_TRUE(accepted(before));
  EXPECT_TRUE(auth_->revoke(token.record.id, [](const std::optional<std::string>&) {}));
  EXPECT_FALSE(accepted(bearer(token.secret)));
  EXPECT_FALSE(accepted(cookie(session)));
  EXPECT_FALSE(auth_->isValid(std::get<Identity>(before)));
  EXPECT_TRUE(accepted(cookie(kept)));
  restart();
  EXPECT_FALSE(accepted(bearer(token.secret)));
  EXPECT_FALSE(auth_->revoke(999, nullptr));
}

TEST_F(AuthTest, ARevokedTokenStaysRevokedWhenTheDatabaseFails) {
  const NewToken token = create("ci");
  store_.failure = "disk full";
  std::optional<std::string> error;
  EXPECT_TRUE(auth_->revoke(token.record.id,
                            [&](const std::optional<std::string>& text) { error = text; }));
  store_.run();
  EXPECT_EQ(error, "disk full");
  EXPECT_FALSE(accepted(bearer(token.secret)));
}

TEST_F(AuthTest, ATokenThatCannotBeStoredIsNotMade) {
  store_.failure = "disk full";
  TokenWish wish;
  wish.name = "ci";
  std::optional<runel::Result<NewToken>> made;
  auth_->create(wish, [&](runel::Result<NewToken> token) { made = std::move(token); });
  EXPECT_FALSE(made);
  store_.run();
  ASSERT_TRUE(made);
  EXPECT_FALSE(*made);
  EXPECT_TRUE(auth_->tokens().empty());
  store_.failure.clear();
  create("ci");
}

TEST_F(AuthTest, TwoUsableTokensHaveTwoNames) {
  const NewToken token = create("ci");
  TokenWish wish;
  wish.name = "ci";
  std::optional<runel::Result<NewToken>> made;
  auth_->create(wish, [&](runel::Result<NewToken> result) { made = std::move(result); });
  ASSERT_TRUE(made);
  EXPECT_FALSE(*made);
  EXPECT_TRUE(auth_->revoke(token.record.id, [](const std::optional<std::string>&) {}));
  create("ci");
}

TEST_F(AuthTest, ACertificateStandsForItsToken) {
  create("build", Role::admin, "build.example");
  Credentials credentials;
  credentials.certificate = "build.example";
  const Auth::Answer answer = auth_->authenticate(credentials);
  ASSERT_TRUE(accepted(answer));
  EXPECT_EQ(std::get<Identity>(answer).label(), "certificate build");
  EXPECT_EQ(std::get<Identity>(answer).role, Role::admin);
  credentials.certificate = "other.example";
  EXPECT_FALSE(accepted(auth_->authenticate(credentials)));
  credentials.certificate = "";
  credentials.authorization = "Bearer certificate:build.example";
  EXPECT_FALSE(accepted(auth_->authenticate(credentials)));
}

TEST_F(AuthTest, ASessionEndsWhenItIsIdleOrOld) {
  const NewToken token = create("ci");
  const std::string idle = login(token.secret);
  pass(minutes(59));
  EXPECT_TRUE(accepted(cookie(idle)));
  pass(minutes(61));
  EXPECT_FALSE(accepted(cookie(idle)));
  const std::string busy = login(token.secret);
  for (int round = 0; round < 23; ++round) {
    pass(minutes(31));
    ASSERT_TRUE(accepted(cookie(busy))) << round;
  }
  pass(minutes(31));
  EXPECT_FALSE(accepted(cookie(busy)));
}

TEST_F(AuthTest, ASessionIsNoLongerThanItsTokenAndEndsWithTheLogout) {
  const NewToken token = create("ci");
  const std::string first = login(token.secret);
  const Auth::Answer answer = cookie(first);
  ASSERT_TRUE(accepted(answer));
  auth_->logout(std::get<Identity>(answer));
  EXPECT_FALSE(accepted(cookie(first)));
  const std::string second = login(token.secret);
  wall_ += 91 * kDay;
  EXPECT_FALSE(accepted(cookie(second)));
  EXPECT_EQ(auth_->sessions(), 0U);
}

TEST_F(AuthTest, SessionsAreBoundedAndTheLongestUnusedGoes) {
  settings_.maxSessionsOfToken = 2;
  settings_.maxSessions = 3;
  restart();
  const NewToken one = create("one");
  const NewToken two = create("two");
  const std::string oldest = login(one.secret);
  pass(seconds(1));
  const std::string newer = login(one.secret);
  pass(seconds(1));
  EXPECT_TRUE(accepted(cookie(oldest)));  // used now: `newer` is the longest unused
  const std::string third = login(one.secret);
  EXPECT_FALSE(accepted(cookie(newer)));
  EXPECT_TRUE(accepted(cookie(oldest)));
  pass(seconds(1));
  EXPECT_TRUE(accepted(cookie(oldest)));
  login(two.secret);
  login(two.secret);
  EXPECT_EQ(auth_->sessions(), 3U);
  EXPECT_FALSE(accepted(cookie(third)));
}

TEST_F(AuthTest, NeitherASessionNorAHashIsAToken) {
  const NewToken token = create("ci");
  const std::string session = login(token.secret);
  EXPECT_FALSE(accepted(bearer(session)));
  EXPECT_FALSE(accepted(bearer(token.record.hash)));
  EXPECT_FALSE(accepted(cookie(token.secret)));
  EXPECT_FALSE(accepted(cookie(hashOf(session))));
}

TEST_F(AuthTest, EachTokenHasItsRate) {
  settings_.tokenRate = {1, 5};
  restart();
  const NewToken token = create("ci");
  const NewToken other = create("other");
  for (int round = 0; round < 5; ++round) {
    EXPECT_TRUE(accepted(bearer(token.secret)));
  }
  const Auth::Answer answer = bearer(token.secret);
  EXPECT_EQ(statusOf(answer), 429U);
  EXPECT_EQ(std::get<AuthRefusal>(answer).retryAfter, 1);
  EXPECT_EQ(std::get<AuthRefusal>(answer).name, "ci");
  EXPECT_TRUE(accepted(bearer(other.secret)));
  pass(seconds(1));
  EXPECT_TRUE(accepted(bearer(token.secret)));
}

TEST_F(AuthTest, SessionsShareTheRateOfTheirToken) {
  settings_.tokenRate = {1, 3};
  restart();
  const NewToken token = create("ci");
  const std::string session = login(token.secret);
  EXPECT_TRUE(accepted(cookie(session)));
  EXPECT_TRUE(accepted(bearer(token.secret)));
  EXPECT_EQ(statusOf(cookie(session)), 429U);
  const auto again = auth_->login(token.secret, "192.0.2.9");
  ASSERT_TRUE(std::holds_alternative<AuthRefusal>(again));
  EXPECT_EQ(std::get<AuthRefusal>(again).status, 429U);
}

TEST_F(AuthTest, FailuresAreLimitedByAddressAndAValidTokenIsStillAccepted) {
  const NewToken token = create("ci");
  for (int round = 0; round < 10; ++round) {
    EXPECT_EQ(statusOf(bearer("wrong")), 401U);
  }
  EXPECT_EQ(statusOf(bearer("wrong")), 429U);
  EXPECT_TRUE(std::holds_alternative<AuthRefusal>(auth_->login("wrong", "192.0.2.1")));
  EXPECT_EQ(std::get<AuthRefusal>(auth_->login("wrong", "192.0.2.1")).status, 429U);
  EXPECT_EQ(statusOf(bearer("wrong", "192.0.2.2")), 401U);
  EXPECT_TRUE(accepted(bearer(token.secret)));
  pass(seconds(5));
  EXPECT_EQ(statusOf(bearer("wrong")), 401U);
}

TEST_F(AuthTest, NotesTheLastUseSeldom) {
  const NewToken token = create("ci");
  const std::size_t before = store_.writes.size();
  for (int round = 0; round < 60; ++round) {
    EXPECT_TRUE(accepted(bearer(token.secret)));
    pass(seconds(20));
  }
  EXPECT_EQ(store_.writes.size() - before, 2U);
  EXPECT_GT(store_.tokens[token.record.id].lastUsed, token.record.created);
}

TEST_F(AuthTest, TheCookieIsOnlyForTheBrowserAndThisHost) {
  EXPECT_EQ(sessionCookie("S", true),
            "__Host-runelgw=S; Path=/; HttpOnly; SameSite=Strict; Secure");
  EXPECT_EQ(sessionCookie("S", false), "runelgw=S; Path=/; HttpOnly; SameSite=Strict");
  EXPECT_EQ(sessionCookie("", true),
            "__Host-runelgw=; Path=/; HttpOnly; SameSite=Strict; Max-Age=0; Secure");
}

TEST_F(AuthTest, NothingStoredContainsASecret) {
  const NewToken token = create("ci");
  const std::string session = login(token.secret);
  EXPECT_TRUE(accepted(cookie(session)));
  pass(hours(1));
  EXPECT_TRUE(accepted(bearer(token.secret)));
  for (const auto& [id, record] : store_.tokens) {
    for (const std::string& text : {record.name, record.hash, record.role}) {
      EXPECT_EQ(text.find(token.secret.substr(4)), std::string::npos);
      EXPECT_EQ(text.find(session), std::string::npos);
    }
  }
}

TEST_F(AuthTest, RightsAreReadAgain) {
  const NewToken token = create("ci");
  const Identity identity = std::get<Identity>(bearer(token.secret));
  ASSERT_TRUE(auth_->refresh(identity));
  EXPECT_TRUE(auth_->refresh(identity)->unlimited());
  wall_ += 90 * kDay;
  EXPECT_FALSE(auth_->refresh(identity));
}

TEST_F(AuthTest, ForgetsOldTokensOnly) {
  const NewToken revoked = create("revoked");
  const NewToken kept = create("kept");
  EXPECT_TRUE(auth_->revoke(revoked.record.id, [](const std::optional<std::string>&) {}));
  auth_->forgetOlder(wall_);
  EXPECT_EQ(auth_->tokens().size(), 2U);
  auth_->forgetOlder(wall_ + 1);
  ASSERT_EQ(auth_->tokens().size(), 1U);
  EXPECT_EQ(auth_->tokens()[0]->name, "kept");
  EXPECT_EQ(store_.tokens.size(), 1U);
  EXPECT_TRUE(accepted(bearer(kept.secret)));
}

}  // namespace
}  // namespace runelgw
