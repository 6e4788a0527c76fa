// SPDX-License-Identifier: Apache-2.0
// What the tests of the store share: the databases, a loop for completions, records.
#ifndef TESTS_UNIT_GATEWAY_STORE_STORE_FIXTURE_H_
#define TESTS_UNIT_GATEWAY_STORE_STORE_FIXTURE_H_

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "fakes/gateway/fake_store.h"
#include "gateway/store/columns.h"
#include "gateway/store/sql_store.h"
#include "support/temp_dir.h"

namespace runelgw::test {

/// Runs completions on the thread of the test, as the loop of the gateway does.
class TestLoop {
 public:
  [[nodiscard]] Post post();
  /// Runs completions until @p done is true; fails the test after a minute.
  void runUntil(const std::function<bool()>& done);
  /// Called in `runUntil` too.
  std::function<void()> alsoRun;

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<std::function<void()>> queue_;
};

/// All bytes from 0 to 255.
std::string allBytes();

/// Sets each column: every string has all bytes, every number another value.
class ColumnFiller {
 public:
  explicit ColumnFiller(std::uint64_t number) : number_(number) {}

  template <typename Number>
  void key(const char*, Number& value) {
    value = number_;
  }
  void textKey(const char* name, std::string& value) { text(name, value); }
  template <typename Number>
  void number(const char*, Number& value) {
    value = static_cast<Number>(0x7fffffffffffff00 + ++count_);
  }
  void optional(const char*, std::optional<std::uint64_t>& value) { value = ~count_++; }
  void text(const char* name, std::string& value, TextForm = TextForm::escaped) {
    value = std::to_string(number_) + name + allBytes();
  }
  void list(const char* name, std::vector<std::string>& value) {
    value = {"", name + allBytes(), "\n", "\\", ""};
  }
  void decision(const char*, Decision& value) { value = Decision::denied; }

 private:
  const std::uint64_t number_;
  std::uint64_t count_ = 0;
};

/// A record with the key of @p number and a value in every column.
template <typename Record>
Record fullRecord(std::uint64_t number) {
  Record record;
  ColumnFiller filler(number);
  visitColumns(filler, record);
  return record;
}

/// The columns of a record as they are stored: equal records have equal texts.
template <typename Record>
std::string textOf(Record record) {
  ColumnValues values;
  visitColumns(values, record);
  std::string text;
  for (const Value& value : values.values()) {
    text += value.isNull ? "null" : value.isText ? value.text : std::to_string(value.number);
    text += '\n';
  }
  return text;
}

template <typename Record>
std::vector<std::string> textsOf(const std::vector<Record>& records) {
  std::vector<std::string> texts;
  for (const Record& record : records) {
    texts.push_back(textOf(record));
  }
  return texts;
}

/// The stores: the fake of other tests keeps the same rules.
enum class Kind { memory, sqlite, postgres };
[[nodiscard]] std::string nameOfKind(const ::testing::TestParamInfo<Kind>& test);

/// An empty store of each kind.
class StoreTest : public ::testing::TestWithParam<Kind> {
 protected:
  StoreTest();
  ~StoreTest() override;

  /// Opens a store on the database of the test. Fails the test if that fails.
  Snapshot open();
  Snapshot reopen();
  /// The error of opening one more store with @p settings.
  std::string errorOfOpening(const StoreSettings& settings);

  /// Writes and waits for the outcome.
  std::optional<std::string> write(std::vector<Change> changes);

  Page<AuditRecord> audit(const AuditQuery& query);
  Page<HistoryRecord> history(const HistoryQuery& query);
  Page<ClauseRecord> clauses(const ClauseQuery& query);
  Page<OperationRecord> operations(const OperationQuery& query);
  Page<OperationResultRecord> results(const ResultQuery& query);

  /// Executes SQL beside the store.
  void execute(const std::string& sql) const;

  zell::test::TempDir directory_;
  StoreSettings settings_;
  TestLoop loop_;
  std::unique_ptr<Store> store_;
};

/// For what only databases have.
class SqlStoreTest : public StoreTest {};

/// Opens @p database on the database of @p settings.
Database::Failure openBeside(const StoreSettings& settings, Database& database);

///@{
DeviceRecord device(DeviceId id, const std::string& name = "gw");
TokenRecord token(std::uint64_t id);
HistoryRecord event(DeviceId id, std::int64_t time, const std::string& name = "connected");
AuditRecord request(const std::string& who, std::int64_t time, const std::string& what = "push");
ClauseRecord clause(DeviceId id, std::int64_t time, const std::string& text = "<a/>");
OperationRecord operation(std::uint64_t id, std::int64_t time, const std::string& state = "done");
OperationResultRecord result(std::uint64_t operation, DeviceId device, std::int64_t time = 1);
///@}

}  // namespace runelgw::test

#endif  // TESTS_UNIT_GATEWAY_STORE_STORE_FIXTURE_H_
