// SPDX-License-Identifier: Apache-2.0
#include "unit/gateway/store/store_fixture.h"

#include <chrono>
#include <utility>

#include "unit/gateway/store/postgres_server.h"

namespace runelgw::test {

Post TestLoop::post() {
  return [this](std::function<void()> call) {
    const std::lock_guard<std::mutex> guard(mutex_);
    queue_.push_back(std::move(call));
    changed_.notify_all();
  };
}

void TestLoop::runUntil(const std::function<bool()>& done) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::minutes(1);
  while (!done()) {
    if (alsoRun) {
      alsoRun();
    }
    std::unique_lock<std::mutex> lock(mutex_);
    // The condition may change without a completion: it is looked at again after a short time.
    changed_.wait_for(lock, std::chrono::milliseconds(alsoRun ? 0 : 20),
                      [this] { return !queue_.empty(); });
    ASSERT_LT(std::chrono::steady_clock::now(), end) << "no completion within a minute";
    while (!queue_.empty()) {
      const std::function<void()> call = std::move(queue_.front());
      queue_.pop_front();
      lock.unlock();
      call();
      lock.lock();
    }
  }
}

std::string allBytes() {
  std::string bytes;
  for (int i = 0; i < 256; ++i) {
    bytes += static_cast<char>(i);
  }
  return bytes;
}

std::string nameOfKind(const ::testing::TestParamInfo<Kind>& test) {
  switch (test.param) {
    case Kind::sqlite:
      return "SQLite";
    case Kind::postgres:
      return "PostgreSQL";
    case Kind::memory:
      break;
  }
  return "Memory";
}

StoreTest::StoreTest() {
  if (GetParam() == Kind::sqlite) {
    settings_.database = directory_.file("fleet.db");
  } else if (GetParam() == Kind::postgres) {
    PostgresServer& server = PostgresServer::shared();
    server.execute("DROP SCHEMA public CASCADE");
    server.execute("CREATE SCHEMA public");
    settings_.database = server.uri();
  }
  // A server sees the end of a connection with a delay.
  settings_.lockTimeout = std::chrono::seconds(30);
}

StoreTest::~StoreTest() {
  store_.reset();
}

Snapshot StoreTest::open() {
  if (GetParam() != Kind::memory) {
    store_ = std::make_unique<SqlStore>(settings_, loop_.post());
  } else if (!store_) {
    auto fake = std::make_unique<FakeStore>();
    loop_.alsoRun = [store = fake.get()] { store->run(); };
    store_ = std::move(fake);
  }
  runel::Result<Snapshot> opened = store_->open();
  EXPECT_TRUE(opened.ok()) << opened.error().text();
  return opened.ok() ? std::move(*opened) : Snapshot();
}

Snapshot StoreTest::reopen() {
  store_->close();
  if (GetParam() != Kind::memory) {
    store_.reset();
  }
  return open();
}

std::string StoreTest::errorOfOpening(const StoreSettings& settings) {
  SqlStore other(settings, loop_.post());
  const runel::Result<Snapshot> opened = other.open();
  EXPECT_FALSE(opened.ok());
  return opened.ok() ? "" : opened.error().text();
}

std::optional<std::string> StoreTest::write(std::vector<Change> changes) {
  std::optional<std::optional<std::string>> outcome;
  store_->write(std::move(changes),
                [&](const std::optional<std::string>& error) { outcome.emplace(error); });
  loop_.runUntil([&] { return outcome.has_value(); });
  return outcome.value_or("no completion");
}

namespace {

template <typename Record, typename Query>
Page<Record> readAndWait(Store& store, TestLoop& loop,
                         void (Store::*read)(Query, Store::Got<Page<Record>>), const Query& query) {
  bool finished = false;
  Page<Record> page;
  (store.*read)(query, [&](const runel::Result<Page<Record>>& got) {
    EXPECT_TRUE(got.ok()) << got.error().text();
    if (got.ok()) {
      page = *got;
    }
    finished = true;
  });
  loop.runUntil([&] { return finished; });
  return page;
}

}  // namespace

Page<AuditRecord> StoreTest::audit(const AuditQuery& query) {
  return readAndWait(*store_, loop_, &Store::readAudit, query);
}
Page<HistoryRecord> StoreTest::history(const HistoryQuery& query) {
  return readAndWait(*store_, loop_, &Store::readHistory, query);
}
Page<ClauseRecord> StoreTest::clauses(const ClauseQuery& query) {
  return readAndWait(*store_, loop_, &Store::readClauses, query);
}
Page<OperationRecord> StoreTest::operations(const OperationQuery& query) {
  return readAndWait(*store_, loop_, &Store::readOperations, query);
}
Page<OperationResultRecord> StoreTest::results(const ResultQuery& query) {
  return readAndWait(*store_, loop_, &Store::readResults, query);
}

Database::Failure openBeside(const StoreSettings& settings, Database& database) {
  return settings.database.rfind("postgresql://", 0) == 0
             ? database.openServer(settings.database, std::chrono::seconds(30))
             : database.openFile(settings.database, std::chrono::seconds(30));
}

void StoreTest::execute(const std::string& sql) const {
  Database database;
  const Database::Failure opened = openBeside(settings_, database);
  ASSERT_FALSE(opened) << opened->text;
  const Database::Failure failure = database.executeOnce(sql);
  ASSERT_FALSE(failure) << failure->text;
}

DeviceRecord device(DeviceId id, const std::string& name) {
  DeviceRecord record;
  record.id = id;
  record.name = name;
  return record;
}

TokenRecord token(std::uint64_t id) {
  TokenRecord record;
  record.id = id;
  return record;
}

HistoryRecord event(DeviceId id, std::int64_t time, const std::string& name) {
  HistoryRecord record;
  record.device = id;
  record.time = time;
  record.event = name;
  return record;
}

AuditRecord request(const std::string& who, std::int64_t time, const std::string& what) {
  AuditRecord record;
  record.who = who;
  record.time = time;
  record.what = what;
  record.outcome = "answered";
  return record;
}

ClauseRecord clause(DeviceId id, std::int64_t time, const std::string& text) {
  ClauseRecord record;
  record.device = id;
  record.time = time;
  record.text = text;
  return record;
}

OperationRecord operation(std::uint64_t id, std::int64_t time, const std::string& state) {
  OperationRecord record;
  record.id = id;
  record.time = time;
  record.state = state;
  return record;
}

OperationResultRecord result(std::uint64_t operation, DeviceId device, std::int64_t time) {
  OperationResultRecord record;
  record.operation = operation;
  record.device = device;
  record.time = time;
  record.outcome = "answered";
  record.output = "output";
  return record;
}

}  // namespace runelgw::test
