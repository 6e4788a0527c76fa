// SPDX-License-Identifier: Apache-2.0
// What happens with a server: it ends, it starts again, it refuses.
#include <chrono>
#include <set>
#include <string>
#include <thread>

#include "unit/gateway/store/postgres_server.h"
#include "unit/gateway/store/store_fixture.h"

namespace runelgw::test {
namespace {

class StoreServerTest : public StoreTest {
 protected:
  // Waits until @p done.
  static void waitUntil(const std::function<bool()>& done) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::minutes(1);
    while (!done()) {
      ASSERT_LT(std::chrono::steady_clock::now(), end);
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
  }

  PostgresServer& server_ = PostgresServer::shared();
};

INSTANTIATE_TEST_SUITE_P(Server, StoreServerTest, ::testing::Values(Kind::postgres));

TEST_P(StoreServerTest, RepeatsWhatTheServerLostWhenItIsBack) {
  open();
  constexpr int kGroups = 600;
  std::set<int> done;
  const auto add = [&](int number) {
    store_->write({Append<AuditRecord>{request(std::to_string(number), number)},
                   Save<SettingRecord>{{std::to_string(number), ""}}},
                  [&done, number](const std::optional<std::string>& error) {
                    EXPECT_EQ(error, std::nullopt);
                    EXPECT_TRUE(done.insert(number).second) << "reported twice";
                  });
  };
  for (int i = 0; i < kGroups / 2; ++i) {
    add(i);
  }
  // In the middle of a batch or of a commit, whose outcome is then unknown.
  loop_.runUntil([&] { return !done.empty(); });
  server_.crash();
  for (int i = kGroups / 2; i < kGroups; ++i) {
    add(i);
  }
  waitUntil([&] { return !store_->state().connected; });
  const StoreState lost = store_->state();
  EXPECT_GE(lost.queued, static_cast<std::size_t>(kGroups));
  EXPECT_NE(lost.lastError.find("check that the server runs and can be reached"), std::string::npos)
      << lost.lastError;
  server_.start();
  loop_.runUntil([&] { return done.size() == kGroups; });
  EXPECT_TRUE(store_->state().connected);
  EXPECT_EQ(store_->state().lastError, "");
  EXPECT_EQ(store_->state().queued, 0U);
  AuditQuery query;
  query.page.limit = kMaxPage;
  EXPECT_EQ(audit(query).items.size(), static_cast<std::size_t>(kGroups));  // each once
  EXPECT_EQ(reopen().settings.size(), static_cast<std::size_t>(kGroups));
}

TEST_P(StoreServerTest, ReadsFailWithoutTheServerAndSucceedWhenItIsBack) {
  open();
  ASSERT_EQ(write({Append<AuditRecord>{request("ci", 1)}}), std::nullopt);
  EXPECT_EQ(audit({}).items.size(), 1U);
  server_.crash();
  std::string error;
  store_->readAudit({},
                    [&](const auto& got) { error = got.ok() ? "no error" : got.error().text(); });
  loop_.runUntil([&] { return !error.empty(); });
  EXPECT_NE(error.find("check that the server runs"), std::string::npos) << error;
  server_.start();
  EXPECT_EQ(audit({}).items.size(), 1U);
}

TEST_P(StoreServerTest, AReadSurvivesTheRestartOfTheServer) {
  open();
  ASSERT_EQ(write({Append<AuditRecord>{request("ci", 1)}}), std::nullopt);
  EXPECT_EQ(audit({}).items.size(), 1U);
  EXPECT_EQ(audit({}).items.size(), 1U);  // both readers may be connected
  server_.crash();
  server_.start();
  EXPECT_EQ(audit({}).items.size(), 1U);
}

TEST_P(StoreServerTest, SurvivesTheEndOfEachConnection) {
  open();
  for (int i = 0; i < 5; ++i) {
    server_.execute(
        "SELECT pg_terminate_backend(pid) FROM pg_stat_activity"
        " WHERE datname = 'postgres' AND pid <> pg_backend_pid()");
    EXPECT_EQ(write({Append<AuditRecord>{request("ci", i)}}), std::nullopt);
    EXPECT_EQ(audit({}).items.size(), static_cast<std::size_t>(i + 1));
  }
}

TEST_P(StoreServerTest, DoesNotWriteWhenAnotherGatewayTookOver) {
  settings_.lockTimeout = std::chrono::milliseconds(50);
  waitUntil([&] {  // until the server saw the end of the connection before
    store_ = std::make_unique<SqlStore>(settings_, loop_.post());
    return store_->open().ok();
  });
  server_.crash();
  server_.start();
  {
    SqlStore other(settings_, loop_.post());
    ASSERT_TRUE(other.open().ok());
    bool finished = false;
    store_->write({Save<SettingRecord>{{"mine", ""}}}, [&](const auto& error) {
      EXPECT_EQ(error, std::nullopt);
      finished = true;
    });
    waitUntil([&] {
      return store_->state().lastError.find("another gateway uses it") != std::string::npos;
    });
    EXPECT_FALSE(finished);
    EXPECT_FALSE(store_->state().connected);
    other.close();
    loop_.runUntil([&] { return finished; });
  }
  EXPECT_TRUE(store_->state().connected);
}

TEST_P(StoreServerTest, ClosesWithoutTheServer) {
  settings_.closeTimeout = std::chrono::milliseconds(200);
  open();
  server_.crash();
  std::string error;
  store_->write({RemoveGroup{"a"}}, [&](const std::optional<std::string>& outcome) {
    error = outcome.value_or("no error");
  });
  const auto start = std::chrono::steady_clock::now();
  store_->close();
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(30));
  loop_.runUntil([&] { return !error.empty(); });
  EXPECT_NE(error.find("the PostgreSQL database: "), std::string::npos) << error;
  server_.start();
}

TEST_P(StoreServerTest, RefusesToStartWithoutTheServer) {
  StoreSettings settings = settings_;
  settings.database = "postgresql:///fleet?host=/nonexistent&user=gateway&password=hunter2";
  std::string error = errorOfOpening(settings);
  EXPECT_NE(error.find("the PostgreSQL database: "), std::string::npos) << error;
  EXPECT_NE(error.find("check that the server runs and can be reached"), std::string::npos)
      << error;
  EXPECT_EQ(error.find("hunter2"), std::string::npos) << error;
  settings.database = server_.uri("absent");
  error = errorOfOpening(settings);
  EXPECT_NE(error.find("database \"absent\" does not exist"), std::string::npos) << error;
}

TEST_P(StoreServerTest, RefusesADatabaseThatCannotHoldEveryCharacter) {
  server_.execute("DROP DATABASE IF EXISTS latin");
  server_.execute("CREATE DATABASE latin ENCODING 'LATIN1' TEMPLATE template0");
  StoreSettings settings = settings_;
  settings.database = server_.uri("latin");
  const std::string error = errorOfOpening(settings);
  EXPECT_NE(error.find("its encoding is LATIN1; create one with UTF8"), std::string::npos) << error;
}

TEST_P(StoreServerTest, RefusesADatabaseInWhichItMayNotCreateTables) {
  server_.execute("DROP ROLE IF EXISTS guest");
  server_.execute("CREATE ROLE guest LOGIN");
  StoreSettings settings = settings_;
  settings.database = server_.uri("postgres", "guest");
  std::string error = errorOfOpening(settings);
  EXPECT_NE(error.find("its user may use no schema; grant USAGE and CREATE on one"),
            std::string::npos)
      << error;
  server_.execute("GRANT USAGE ON SCHEMA public TO guest");
  error = errorOfOpening(settings);
  EXPECT_NE(error.find("permission denied for schema public"), std::string::npos) << error;
}

// The administrator may have chosen otherwise for other programs.
TEST_P(StoreServerTest, CommitsReachTheDiskInSpiteOfTheDefault) {
  server_.execute("ALTER DATABASE postgres SET synchronous_commit = off");
  Database database;
  ASSERT_FALSE(openBeside(settings_, database));
  std::string value;
  ASSERT_FALSE(database.query("SHOW synchronous_commit", {}, "t", [&](std::vector<Value>& row) {
    value = row[0].text;
    return true;
  }));
  EXPECT_EQ(value, "on");
  server_.execute("ALTER DATABASE postgres RESET synchronous_commit");
}

TEST_P(StoreServerTest, LeavesBackupsToTheProgramsOfTheServer) {
  open();
  std::string error;
  store_->backup(directory_.file("copy"), [&](const std::optional<std::string>& outcome) {
    error = outcome.value_or("no error");
  });
  loop_.runUntil([&] { return !error.empty(); });
  EXPECT_NE(error.find("pg_dump"), std::string::npos) << error;
  const runel::Result<void> restored = restoreDatabase(settings_, directory_.file("copy"));
  ASSERT_FALSE(restored.ok());
  EXPECT_NE(restored.error().text().find("pg_restore"), std::string::npos);
}

}  // namespace
}  // namespace runelgw::test
