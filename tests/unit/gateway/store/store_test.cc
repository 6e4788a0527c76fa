// SPDX-License-Identifier: Apache-2.0
// What the store does on both kinds of database, and what its fake does too.
#include "unit/gateway/store/store_fixture.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <limits>
#include <map>
#include <numeric>
#include <set>
#include <thread>

#include "gateway/store/schema.h"

namespace runelgw::test {
namespace {

INSTANTIATE_TEST_SUITE_P(Stores, StoreTest,
                         ::testing::Values(Kind::memory, Kind::sqlite, Kind::postgres), nameOfKind);
INSTANTIATE_TEST_SUITE_P(Databases, SqlStoreTest, ::testing::Values(Kind::sqlite, Kind::postgres),
                         nameOfKind);

template <typename Record>
std::vector<std::uint64_t> idsOf(const std::vector<Record>& records) {
  std::vector<std::uint64_t> ids;
  for (const Record& record : records) {
    ids.push_back(record.id);
  }
  return ids;
}

TEST_P(StoreTest, IsEmptyAtFirst) {
  const Snapshot snapshot = open();
  EXPECT_TRUE(snapshot.devices.empty() && snapshot.tags.empty() && snapshot.tagRules.empty() &&
              snapshot.groups.empty() && snapshot.access.empty() && snapshot.tokens.empty() &&
              snapshot.settings.empty() && snapshot.unfinished.empty());
  EXPECT_EQ(snapshot.nextDevice, 1U);
  EXPECT_EQ(snapshot.nextToken, 1U);
  EXPECT_EQ(snapshot.nextOperation, 1U);
  EXPECT_TRUE(store_->state().connected);
}

// Every byte in every column, the greatest numbers, lists, absent values.
TEST_P(StoreTest, ReturnsEveryColumnOfEveryRecordUnchanged) {
  open();
  auto plain = device(7);
  auto running = fullRecord<OperationRecord>(5);
  running.state = "running";
  auto done = fullRecord<OperationResultRecord>(5);
  ASSERT_EQ(
      write({Save<DeviceRecord>{fullRecord<DeviceRecord>(6)}, Save<DeviceRecord>{plain},
             Save<TagRecord>{fullRecord<TagRecord>(6)},
             Save<TagRuleRecord>{fullRecord<TagRuleRecord>(1)},
             Save<GroupRecord>{fullRecord<GroupRecord>(1)},
             Save<AccessRecord>{fullRecord<AccessRecord>(1)},
             Save<TokenRecord>{fullRecord<TokenRecord>(3)},
             Save<SettingRecord>{fullRecord<SettingRecord>(1)}, Save<OperationRecord>{running},
             Save<OperationResultRecord>{done}, Append<HistoryRecord>{fullRecord<HistoryRecord>(1)},
             Append<AuditRecord>{fullRecord<AuditRecord>(1)},
             Append<ClauseRecord>{fullRecord<ClauseRecord>(1)}}),
      std::nullopt);
  const Snapshot snapshot = reopen();
  EXPECT_EQ(textsOf(snapshot.devices), textsOf(std::vector{fullRecord<DeviceRecord>(6), plain}));
  EXPECT_FALSE(snapshot.devices.at(1).freeBytes.has_value());
  EXPECT_EQ(snapshot.devices.at(0).hostid, "6hostid" + allBytes());
  EXPECT_EQ(textsOf(snapshot.tags), textsOf(std::vector{fullRecord<TagRecord>(6)}));
  EXPECT_EQ(textsOf(snapshot.tagRules), textsOf(std::vector{fullRecord<TagRuleRecord>(1)}));
  EXPECT_EQ(textsOf(snapshot.groups), textsOf(std::vector{fullRecord<GroupRecord>(1)}));
  EXPECT_EQ(textsOf(snapshot.access), textsOf(std::vector{fullRecord<AccessRecord>(1)}));
  EXPECT_EQ(textsOf(snapshot.tokens), textsOf(std::vector{fullRecord<TokenRecord>(3)}));
  EXPECT_EQ(textsOf(snapshot.settings), textsOf(std::vector{fullRecord<SettingRecord>(1)}));
  EXPECT_EQ(textsOf(snapshot.unfinished), textsOf(std::vector{running}));
  EXPECT_EQ(textsOf(operations({}).items), textsOf(std::vector{running}));
  ResultQuery query;
  query.operation = 5;
  EXPECT_EQ(textsOf(results(query).items), textsOf(std::vector{done}));
  EXPECT_EQ(textsOf(history({}).items), textsOf(std::vector{fullRecord<HistoryRecord>(1)}));
  EXPECT_EQ(textsOf(audit({}).items), textsOf(std::vector{fullRecord<AuditRecord>(1)}));
  EXPECT_EQ(textsOf(clauses({}).items), textsOf(std::vector{fullRecord<ClauseRecord>(1)}));
  EXPECT_EQ(clauses({}).items.at(0).text, "1clause" + allBytes());
}

TEST_P(StoreTest, FindsTextsWithAnyBytes) {
  open();
  AuditRecord odd = request(allBytes(), 1, std::string("a\0b", 3));
  ASSERT_EQ(write({Append<AuditRecord>{odd}, Append<AuditRecord>{request("ci", 2)}}), std::nullopt);
  AuditQuery query;
  query.who = allBytes();
  query.what = std::string("a\0b", 3);
  EXPECT_EQ(idsOf(audit(query).items), std::vector<std::uint64_t>{1});
  query.what = "a";
  EXPECT_TRUE(audit(query).items.empty());
}

TEST_P(StoreTest, ReplacesARecordWithTheSameKey) {
  open();
  auto first = fullRecord<DeviceRecord>(1);
  auto second = device(1, "new");
  ASSERT_EQ(write({Save<DeviceRecord>{first}, Save<TagRecord>{{1, "site", "north", ""}}}),
            std::nullopt);
  ASSERT_EQ(write({Save<DeviceRecord>{second}}), std::nullopt);
  const Snapshot snapshot = reopen();
  EXPECT_EQ(textsOf(snapshot.devices), textsOf(std::vector{second}));
  EXPECT_EQ(snapshot.tags.size(), 1U);  // a replaced device keeps its tags
}

TEST_P(StoreTest, RemovesRecordsByTheirKey) {
  open();
  ASSERT_EQ(
      write({Save<DeviceRecord>{device(1)}, Save<TagRecord>{{1, "a", "1", ""}},
             Save<TagRecord>{{1, "b", "2", ""}}, Save<TagRuleRecord>{{"r", "", "", ""}},
             Save<GroupRecord>{{"g", ""}}, Save<AccessRecord>{{"hostid", "x", true, 0, ""}},
             Save<AccessRecord>{{"address", "x", true, 0, ""}}, Save<TokenRecord>{token(1)},
             Save<SettingRecord>{{"s", ""}}, Save<OperationRecord>{operation(1, 1, "running")},
             Save<OperationResultRecord>{result(1, 1)}}),
      std::nullopt);
  ASSERT_EQ(
      write({RemoveTag{1, "a"}, RemoveTagRule{"r"}, RemoveGroup{"g"}, RemoveAccess{"hostid", "x"},
             RemoveToken{1}, RemoveSetting{"s"}, RemoveOperation{1}, RemoveGroup{"absent"}}),
      std::nullopt);
  ResultQuery query;
  query.operation = 1;
  EXPECT_TRUE(results(query).items.empty());
  const Snapshot snapshot = reopen();
  ASSERT_EQ(snapshot.tags.size(), 1U);
  EXPECT_EQ(snapshot.tags[0].name, "b");
  ASSERT_EQ(snapshot.access.size(), 1U);
  EXPECT_EQ(snapshot.access[0].kind, "address");
  EXPECT_TRUE(snapshot.tagRules.empty() && snapshot.groups.empty() && snapshot.tokens.empty() &&
              snapshot.settings.empty() && snapshot.unfinished.empty());
}

TEST_P(StoreTest, RemovesADeviceWithAllThatBelongsToIt) {
  open();
  std::vector<Change> changes = {Save<OperationRecord>{operation(1, 1)}};
  for (const DeviceId id : {DeviceId{1}, DeviceId{2}}) {
    changes.insert(changes.end(),
                   {Save<DeviceRecord>{device(id)}, Save<TagRecord>{{id, "a", "1", ""}},
                    Append<HistoryRecord>{event(id, 1)}, Append<ClauseRecord>{clause(id, 1)},
                    Save<OperationResultRecord>{result(1, id)}});
  }
  ASSERT_EQ(write(std::move(changes)), std::nullopt);
  ASSERT_EQ(write({RemoveDevice{1}}), std::nullopt);
  ResultQuery query;
  query.operation = 1;
  ASSERT_EQ(results(query).items.size(), 1U);
  EXPECT_EQ(results(query).items[0].device, 2U);
  ASSERT_EQ(history({}).items.size(), 1U);
  EXPECT_EQ(history({}).items[0].device, 2U);
  ASSERT_EQ(clauses({}).items.size(), 1U);
  EXPECT_EQ(clauses({}).items[0].device, 2U);
  const Snapshot snapshot = reopen();
  ASSERT_EQ(snapshot.devices.size(), 1U);
  EXPECT_EQ(snapshot.devices[0].id, 2U);
  ASSERT_EQ(snapshot.tags.size(), 1U);
  EXPECT_EQ(snapshot.tags[0].device, 2U);
}

TEST_P(StoreTest, NeverUsesAnIdAgain) {
  open();
  ASSERT_EQ(write({Save<DeviceRecord>{device(41)}, Save<TokenRecord>{token(8)},
                   Save<OperationRecord>{operation(3, 1)}, Append<HistoryRecord>{event(41, 1)},
                   Append<AuditRecord>{request("ci", 1)}, Append<ClauseRecord>{clause(41, 1)}}),
            std::nullopt);
  ASSERT_EQ(write({RemoveDevice{41}, RemoveToken{8}, RemoveOperation{3}}), std::nullopt);
  bool removed = false;
  store_->removeOlder({2, 2, 2, 2, 2, 0, 0, 0}, [&](const auto& error) {
    EXPECT_EQ(error, std::nullopt);
    removed = true;
  });
  loop_.runUntil([&] { return removed; });
  EXPECT_TRUE(audit({}).items.empty());
  const Snapshot snapshot = reopen();
  EXPECT_EQ(snapshot.nextDevice, 42U);
  EXPECT_EQ(snapshot.nextToken, 9U);
  EXPECT_EQ(snapshot.nextOperation, 4U);
  ASSERT_EQ(write({Append<HistoryRecord>{event(50, 1)}, Append<AuditRecord>{request("ci", 1)},
                   Append<ClauseRecord>{clause(50, 1)}}),
            std::nullopt);
  EXPECT_EQ(idsOf(history({}).items), std::vector<std::uint64_t>{2});
  EXPECT_EQ(idsOf(audit({}).items), std::vector<std::uint64_t>{2});
  EXPECT_EQ(idsOf(clauses({}).items), std::vector<std::uint64_t>{2});
}

TEST_P(StoreTest, RefusesReferencesToWhatIsAbsent) {
  open();
  EXPECT_TRUE(write({Save<GroupRecord>{{"half", ""}}, Save<TagRecord>{{1, "a", "b", ""}}}));
  EXPECT_TRUE(write({Save<OperationResultRecord>{result(1, 1)}}));
  EXPECT_TRUE(
      write({Save<DeviceRecord>{device(1)}, RemoveDevice{1}, Save<TagRecord>{{1, "a", "b", ""}}}));
  EXPECT_EQ(
      write({Save<DeviceRecord>{device(1)}, Save<TagRecord>{{1, "a", "b", ""}},
             Save<OperationRecord>{operation(1, 1)}, Save<OperationResultRecord>{result(1, 99)}}),
      std::nullopt);
  const Snapshot snapshot = reopen();
  EXPECT_TRUE(snapshot.groups.empty());
  EXPECT_EQ(snapshot.devices.size(), 1U);
}

TEST_P(StoreTest, FailsAfterItsEnd) {
  open();
  store_->close();
  std::vector<std::string> errors;
  const auto keep = [&](const std::optional<std::string>& error) {
    errors.push_back(error.value_or("no error"));
  };
  store_->write({RemoveGroup{"1"}}, keep);
  store_->removeOlder({}, keep);
  store_->readAudit(
      {}, [&](const auto& got) { errors.push_back(got.ok() ? "no error" : got.error().text()); });
  loop_.runUntil([&] { return errors.size() == 3; });
  for (const std::string& error : errors) {
    EXPECT_NE(error.find("is closed"), std::string::npos) << error;
  }
}

// The batch that fails has groups before and behind the bad one.
TEST_P(SqlStoreTest, AGroupThatFailsLeavesNothingAndHarmsNoOther) {
  std::mutex hold;
  hold.lock();
  bool holding = true;
  settings_.probe = [&](const char* step) {
    if (std::string(step) == "begun") {
      const std::lock_guard<std::mutex> guard(hold);
    }
  };
  open();
  std::map<int, std::optional<std::string>> outcomes;
  const auto into = [&](int number) {
    return
        [&outcomes, number](const std::optional<std::string>& error) { outcomes[number] = error; };
  };
  // The first write is a separate batch, which waits; the next ones are one batch.
  store_->write({Save<SettingRecord>{{"first", ""}}}, into(0));
  store_->write({Save<DeviceRecord>{device(1)}}, into(1));
  store_->write({Save<SettingRecord>{{"half", ""}}, Save<TagRecord>{{99, "a", "b", ""}},
                 Append<AuditRecord>{request("half", 1)}},
                into(2));
  store_->write({Save<TagRecord>{{1, "a", "b", ""}}, Append<AuditRecord>{request("whole", 1)}},
                into(3));
  holding = false;
  hold.unlock();
  loop_.runUntil([&] { return outcomes.size() == 4; });
  EXPECT_FALSE(holding);
  EXPECT_EQ(outcomes[0], std::nullopt);
  EXPECT_EQ(outcomes[1], std::nullopt);
  ASSERT_TRUE(outcomes[2].has_value());
  EXPECT_NE(outcomes[2]->find("database"), std::string::npos) << *outcomes[2];
  EXPECT_EQ(outcomes[3], std::nullopt);
  EXPECT_EQ(store_->state().failed, 1U);
  EXPECT_EQ(store_->state().queued, 0U);
  ASSERT_EQ(audit({}).items.size(), 1U);
  EXPECT_EQ(audit({}).items[0].who, "whole");
  const Snapshot snapshot = reopen();
  EXPECT_EQ(snapshot.devices.size(), 1U);
  EXPECT_EQ(snapshot.tags.size(), 1U);
  ASSERT_EQ(snapshot.settings.size(), 1U);
  EXPECT_EQ(snapshot.settings[0].name, "first");
}

TEST_P(SqlStoreTest, ChangesTakeEffectInTheirOrder) {
  std::mutex hold;
  std::unique_lock<std::mutex> held(hold);
  settings_.probe = [&](const char* step) {
    if (std::string(step) == "begun") {
      const std::lock_guard<std::mutex> guard(hold);
    }
  };
  open();
  int left = 300;
  for (int i = 0; i < 300; ++i) {
    store_->write({RemoveSetting{"x"}, Save<SettingRecord>{{"x", std::to_string(i)}},
                   Append<AuditRecord>{request(std::to_string(i), i)}},
                  [&, i](const auto& error) {
                    EXPECT_EQ(error, std::nullopt);
                    EXPECT_EQ(left, 300 - i);
                    --left;
                  });
  }
  held.unlock();
  loop_.runUntil([&] { return left == 0; });
  EXPECT_LE(store_->state().commits, 2U);  // the first one, and all that waited for it
  EXPECT_EQ(store_->state().changes, 900U);
  AuditQuery query;
  query.page.limit = 1000;
  query.page.oldestFirst = true;
  const Page<AuditRecord> page = audit(query);
  ASSERT_EQ(page.items.size(), 300U);
  for (int i = 0; i < 300; ++i) {
    EXPECT_EQ(page.items[static_cast<std::size_t>(i)].who, std::to_string(i));
  }
  const Snapshot snapshot = reopen();
  ASSERT_EQ(snapshot.settings.size(), 1U);
  EXPECT_EQ(snapshot.settings[0].value, "299");
}

TEST_P(StoreTest, PagesStayTheSameWhileRecordsAreAdded) {
  open();
  const auto add = [&](int count) {
    std::vector<Change> changes;
    for (int i = 0; i < count; ++i) {
      changes.emplace_back(Append<AuditRecord>{request("ci", 1)});
    }
    ASSERT_EQ(write(std::move(changes)), std::nullopt);
  };
  add(95);
  AuditQuery query;
  query.page.limit = 10;
  std::vector<std::uint64_t> seen;
  do {
    const Page<AuditRecord> page = audit(query);
    const std::vector<std::uint64_t> ids = idsOf(page.items);
    seen.insert(seen.end(), ids.begin(), ids.end());
    query.page.cursor = page.next;
    add(3);
  } while (query.page.cursor != 0);
  std::vector<std::uint64_t> expected(95);
  std::iota(expected.rbegin(), expected.rend(), 1);
  EXPECT_EQ(seen, expected);

  // Upwards, all pages together have each record once, the added ones too.
  query.page.oldestFirst = true;
  seen.clear();
  do {
    const Page<AuditRecord> page = audit(query);
    const std::vector<std::uint64_t> ids = idsOf(page.items);
    EXPECT_LE(ids.size(), 10U);
    seen.insert(seen.end(), ids.begin(), ids.end());
    query.page.cursor = page.next;
  } while (query.page.cursor != 0);
  expected.resize(seen.size());
  std::iota(expected.begin(), expected.end(), 1);
  EXPECT_EQ(seen, expected);
  EXPECT_EQ(seen.size(), 95U + 30);
}

TEST_P(StoreTest, ThePageThatEndsWithTheLastRecordIsTheLast) {
  open();
  std::vector<Change> changes;
  for (int i = 0; i < 40; ++i) {
    changes.emplace_back(Append<HistoryRecord>{event(1, i)});
  }
  ASSERT_EQ(write(std::move(changes)), std::nullopt);
  HistoryQuery query;
  for (const std::size_t limit : {1U, 19U, 20U, 21U, 39U, 40U, 41U, 1000U, 5000U}) {
    query.page = {};
    query.page.limit = limit;
    std::size_t count = 0;
    std::size_t pages = 0;
    do {
      const Page<HistoryRecord> page = history(query);
      EXPECT_FALSE(page.items.empty()) << limit;
      count += page.items.size();
      pages += 1;
      query.page.cursor = page.next;
    } while (query.page.cursor != 0);
    EXPECT_EQ(count, 40U) << limit;
    EXPECT_EQ(pages,
              (40 + std::min<std::size_t>(limit, 1000) - 1) / std::min<std::size_t>(limit, 1000))
        << limit;
  }
  query.page.limit = 0;
  EXPECT_EQ(history(query).items.size(), 1U);
}

TEST_P(SqlStoreTest, APageEndsBeforeItFillsTheMemory) {
  open();
  for (int i = 0; i < 12; ++i) {
    OperationResultRecord large = result(1, static_cast<DeviceId>(i + 1));
    large.output.assign(1U << 20U, static_cast<char>('a' + i));
    ASSERT_EQ(write({Save<OperationRecord>{operation(1, 1)}, Save<OperationResultRecord>{large}}),
              std::nullopt);
  }
  ResultQuery query;
  query.operation = 1;
  query.page.limit = 1000;
  std::vector<DeviceId> seen;
  do {
    const Page<OperationResultRecord> page = results(query);
    EXPECT_LE(page.items.size(), 5U);
    ASSERT_FALSE(page.items.empty());
    for (const OperationResultRecord& record : page.items) {
      EXPECT_EQ(record.output, std::string(1U << 20U, static_cast<char>('a' + record.device - 1)));
      seen.push_back(record.device);
    }
    query.page.cursor = page.next;
  } while (query.page.cursor != 0);
  EXPECT_EQ(seen, (std::vector<DeviceId>{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12}));
}

TEST_P(StoreTest, SelectsRecords) {
  open();
  ASSERT_EQ(
      write({Append<HistoryRecord>{event(1, 10)}, Append<HistoryRecord>{event(2, 20, "lost")},
             Append<HistoryRecord>{event(1, 30, "lost")}, Append<ClauseRecord>{clause(1, 10)},
             Append<ClauseRecord>{clause(2, 20)}, Append<AuditRecord>{request("ci", 10)},
             Append<AuditRecord>{request("ops", 20, "exec")},
             Save<OperationRecord>{operation(1, 10)},
             Save<OperationRecord>{operation(2, 20, "running")},
             Save<OperationResultRecord>{result(1, 1)}, Save<OperationResultRecord>{result(1, 2)},
             Save<OperationResultRecord>{result(2, 1)}}),
      std::nullopt);
  using Ids = std::vector<std::uint64_t>;
  HistoryQuery ofDevice;
  ofDevice.device = 1;
  EXPECT_EQ(idsOf(history(ofDevice).items), (Ids{3, 1}));
  ofDevice.event = "lost";
  EXPECT_EQ(idsOf(history(ofDevice).items), (Ids{3}));
  HistoryQuery inTime;
  inTime.time = {10, 30};
  EXPECT_EQ(idsOf(history(inTime).items), (Ids{2, 1}));
  inTime.time = {20, 0};
  EXPECT_EQ(idsOf(history(inTime).items), (Ids{3, 2}));
  ClauseQuery ofSecond;
  ofSecond.device = 2;
  EXPECT_EQ(idsOf(clauses(ofSecond).items), (Ids{2}));
  AuditQuery byOps;
  byOps.who = "ops";
  byOps.outcome = "answered";
  EXPECT_EQ(idsOf(audit(byOps).items), (Ids{2}));
  byOps.outcome = "not run";
  EXPECT_EQ(idsOf(audit(byOps).items), Ids{});
  OperationQuery running;
  running.state = "running";
  EXPECT_EQ(idsOf(operations(running).items), (Ids{2}));
  OperationQuery one;
  one.id = 1;
  EXPECT_EQ(idsOf(operations(one).items), (Ids{1}));
  ResultQuery onDevice;
  onDevice.operation = 1;
  onDevice.device = 2;
  EXPECT_EQ(results(onDevice).items.size(), 1U);
  onDevice.outcome = "not run";
  EXPECT_TRUE(results(onDevice).items.empty());
}

TEST_P(StoreTest, RemovesOldRecords) {
  open();
  std::vector<Change> changes;
  for (int i = 1; i <= 1200; ++i) {
    changes.emplace_back(Append<HistoryRecord>{event(1, i)});
    changes.emplace_back(Append<ClauseRecord>{clause(1, i)});
  }
  for (const std::uint64_t id : {1U, 2U, 3U}) {
    changes.emplace_back(Append<AuditRecord>{request("ci", static_cast<std::int64_t>(id))});
    changes.emplace_back(Save<OperationRecord>{
        operation(id, static_cast<std::int64_t>(id), id == 1 ? "running" : "done")});
    changes.emplace_back(Save<OperationResultRecord>{result(id, 1, static_cast<std::int64_t>(id))});
  }
  ASSERT_EQ(write(std::move(changes)), std::nullopt);
  Retention retention;
  retention.historyBefore = 1101;
  retention.clauseRows = 30;
  retention.auditBefore = 3;
  retention.operationsBefore = 3;
  retention.outputsBefore = 3;
  bool done = false;
  store_->removeOlder(retention, [&](const auto& error) {
    EXPECT_EQ(error, std::nullopt);
    done = true;
  });
  loop_.runUntil([&] { return done; });
  HistoryQuery left;
  left.page.limit = 1000;
  EXPECT_EQ(history(left).items.size(), 100U);
  EXPECT_EQ(history(left).items.back().time, 1101);
  ClauseQuery newest;
  newest.page.limit = 1000;
  EXPECT_EQ(clauses(newest).items.size(), 30U);
  EXPECT_EQ(clauses(newest).items.back().time, 1171);
  EXPECT_EQ(audit({}).items.size(), 1U);
  EXPECT_EQ(idsOf(operations({}).items), (std::vector<std::uint64_t>{3, 1}));  // 1 still runs
  ResultQuery query;
  query.operation = 1;
  ASSERT_EQ(results(query).items.size(), 1U);
  EXPECT_EQ(results(query).items[0].output, "");
  EXPECT_EQ(results(query).items[0].outcome, "answered");
  query.operation = 3;
  ASSERT_EQ(results(query).items.size(), 1U);
  EXPECT_EQ(results(query).items[0].output, "output");
}

TEST_P(SqlStoreTest, CommitsBetweenTheStepsOfARemoval) {
  std::atomic<int> steps{0};
  std::atomic<int> stepsAtCommit{-1};
  std::function<void()> atFirstStep;
  settings_.probe = [&](const char* step) {
    if (std::string(step) == "removed" && ++steps == 1) {
      atFirstStep();
    }
  };
  open();
  std::vector<Change> changes;
  for (int i = 1; i <= 1900; ++i) {
    changes.emplace_back(Append<HistoryRecord>{event(1, i)});
  }
  ASSERT_EQ(write(std::move(changes)), std::nullopt);
  atFirstStep = [&] {
    store_->write({Save<SettingRecord>{{"x", ""}}},
                  [&](const auto&) { stepsAtCommit = stepsAtCommit < 0 ? 0 : 1; });
  };
  // The completion of the write comes before that of the removal, which has more steps.
  bool committedFirst = false;
  bool done = false;
  Retention retention;
  retention.historyBefore = 5000;
  store_->removeOlder(retention, [&](const auto&) {
    committedFirst = stepsAtCommit == 0;
    done = true;
  });
  loop_.runUntil([&] { return done; });
  EXPECT_TRUE(committedFirst);
  EXPECT_GE(steps, 4);
}

TEST_P(SqlStoreTest, RefusesWhatItsQueueHasNoRoomFor) {
  std::mutex hold;
  std::unique_lock<std::mutex> held(hold);
  settings_.queuedChanges = 3;
  settings_.probe = [&](const char* step) {
    if (std::string(step) == "begun") {
      const std::lock_guard<std::mutex> guard(hold);
    }
  };
  open();
  std::vector<std::optional<std::string>> outcomes;
  const auto keep = [&](const std::optional<std::string>& error) { outcomes.push_back(error); };
  store_->write({RemoveGroup{"a"}, RemoveGroup{"b"}}, keep);
  store_->write({RemoveGroup{"c"}, RemoveGroup{"d"}}, keep);
  loop_.runUntil([&] { return !outcomes.empty(); });  // the second one, while the first one waits
  ASSERT_FALSE(outcomes.empty());
  ASSERT_TRUE(outcomes[0].has_value());
  EXPECT_NE(outcomes[0]->find("2 changes wait to be written; the queue is full"), std::string::npos)
      << *outcomes[0];
  EXPECT_EQ(store_->state().refused, 1U);
  EXPECT_EQ(store_->state().queued, 2U);
  store_->write({RemoveGroup{"e"}}, keep);  // there is room for this one
  held.unlock();
  loop_.runUntil([&] { return outcomes.size() == 3; });
  EXPECT_EQ(outcomes[1], std::nullopt);
  EXPECT_EQ(outcomes[2], std::nullopt);
  EXPECT_EQ(store_->state().queued, 0U);
}

TEST_P(SqlStoreTest, RefusesMoreBytesThanItsQueueMayHave) {
  settings_.queuedBytes = 100000;
  open();
  const auto error = write({Append<ClauseRecord>{clause(1, 1, std::string(100000, 'x'))}});
  ASSERT_TRUE(error.has_value());
  EXPECT_NE(error->find("the queue is full"), std::string::npos);
  EXPECT_EQ(write({Append<ClauseRecord>{clause(1, 1, std::string(90000, 'x'))}}), std::nullopt);
}

TEST_P(SqlStoreTest, RefusesReadsThatItsQueueHasNoRoomFor) {
  settings_.readers = 1;
  settings_.queuedReads = 2;
  // The reader waits before it takes the next read.
  std::mutex hold;
  std::unique_lock<std::mutex> held(hold);
  std::atomic<int> blocked{0};
  const std::thread::id thisThread = std::this_thread::get_id();
  const Post post = [&](std::function<void()> call) {
    if (std::this_thread::get_id() != thisThread) {
      ++blocked;
      const std::lock_guard<std::mutex> guard(hold);
    }
    loop_.post()(std::move(call));
  };
  store_ = std::make_unique<SqlStore>(settings_, post);
  ASSERT_TRUE(store_->open().ok());
  std::vector<std::string> errors;
  int answered = 0;
  const auto keep = [&](const runel::Result<Page<AuditRecord>>& got) {
    answered += got.ok() ? 1 : 0;
    if (!got.ok()) {
      errors.push_back(got.error().text());
    }
  };
  store_->readAudit({}, keep);
  loop_.runUntil([&] { return blocked == 1; });
  for (int i = 0; i < 5; ++i) {
    store_->readAudit({}, keep);
  }
  loop_.runUntil([&] { return errors.size() == 3; });  // two wait
  ASSERT_EQ(errors.size(), 3U);
  EXPECT_NE(errors[0].find("2 reads wait; try again later"), std::string::npos) << errors[0];
  EXPECT_EQ(store_->state().refused, 3U);
  EXPECT_EQ(store_->state().readsWaiting, 2U);
  held.unlock();
  loop_.runUntil([&] { return answered == 3; });
  EXPECT_EQ(store_->state().reads, 3U);
}

TEST_P(SqlStoreTest, AReadThatWaitedTooLongFails) {
  settings_.readers = 1;
  settings_.readTimeout = std::chrono::milliseconds(0);
  open();
  std::string error;
  store_->readAudit({}, [&](const runel::Result<Page<AuditRecord>>& got) {
    error = got.ok() ? "no error" : got.error().text();
  });
  loop_.runUntil([&] { return !error.empty(); });
  EXPECT_NE(error.find("no reader was free in time"), std::string::npos) << error;
}

TEST_P(SqlStoreTest, ASecondGatewayIsRefused) {
  open();
  StoreSettings second = settings_;
  second.lockTimeout = std::chrono::milliseconds(100);
  const std::string error = errorOfOpening(second);
  EXPECT_NE(error.find("another gateway"), std::string::npos) << error;
  EXPECT_NE(error.find("stop that one first"), std::string::npos) << error;
  EXPECT_EQ(write({Save<GroupRecord>{{"g", ""}}}), std::nullopt);  // the first one continues
  EXPECT_EQ(reopen().groups.size(), 1U);
}

TEST_P(SqlStoreTest, CommitsWhatIsQueuedWhenItCloses) {
  open();
  int succeeded = 0;
  for (int i = 0; i < 200; ++i) {
    store_->write({Save<GroupRecord>{{std::to_string(i), ""}}},
                  [&](const auto& error) { succeeded += error ? 0 : 1; });
  }
  store_->close();
  loop_.runUntil([&] { return succeeded == 200; });
  EXPECT_EQ(open().groups.size(), 200U);
}

TEST_P(SqlStoreTest, CloseAnswersEveryRead) {
  settings_.readers = 1;
  open();
  int answered = 0;
  for (int i = 0; i < 20; ++i) {
    store_->readHistory({}, [&](const auto&) { ++answered; });
  }
  store_->close();
  loop_.runUntil([&] { return answered == 20; });
}

TEST_P(SqlStoreTest, RefusesTheSchemaOfANewerProgram) {
  open();
  store_->close();
  execute("UPDATE runelgw_schema SET version = 999");
  const std::string error = errorOfOpening(settings_);
  EXPECT_NE(error.find("its schema has version 999"), std::string::npos) << error;
  EXPECT_NE(error.find("use the program that made it, or a newer one"), std::string::npos) << error;
}

TEST_P(SqlStoreTest, RefusesTheTablesOfAnotherProgram) {
  if (GetParam() == Kind::sqlite) {
    directory_.write("fleet.db", "");
  }
  execute("CREATE TABLE invoices (id BIGINT)");
  const std::string error = errorOfOpening(settings_);
  EXPECT_NE(error.find("it has the tables of another program"), std::string::npos) << error;
}

TEST_P(SqlStoreTest, RefusesValuesThatItDidNotWrite) {
  open();
  ASSERT_EQ(write({Save<DeviceRecord>{device(1)}}), std::nullopt);
  store_->close();
  for (const char* change :
       {"hostid = 'xyz'", "kernel = '*'", "name = '\\y'", "decision = 'maybe'", "port = 70000"}) {
    execute(
        "UPDATE devices SET hostid = '', kernel = '', name = '', decision = 'denied', port = 1");
    execute(std::string("UPDATE devices SET ") + change);
    const std::string error = errorOfOpening(settings_);
    const std::string column = std::string(change).substr(0, std::string(change).find(' '));
    EXPECT_NE(error.find("the table devices has an invalid value in " + column), std::string::npos)
        << error;
    EXPECT_NE(error.find("restore a backup"), std::string::npos) << error;
  }
}

TEST_P(SqlStoreTest, MigratesFromEachVersionForward) {
  // Each step changes what the one before it made.
  std::vector<Migration> steps = migrations();
  const std::size_t known = steps.size();
  open();
  ASSERT_EQ(write({Save<GroupRecord>{{"kept", "type:controller"}}}), std::nullopt);
  store_->close();
  steps.push_back(
      {"ALTER TABLE saved_groups ADD COLUMN owner TEXT", "UPDATE saved_groups SET owner = 'ops'"});
  steps.push_back({"CREATE TABLE more (id $KEY)", "INSERT INTO more (id) VALUES (4000000000)"});
  Database database;
  ASSERT_FALSE(openBeside(settings_, database));
  int statements = 0;
  ASSERT_EQ(migrate(database, steps, [&] { ++statements; }), std::nullopt);
  EXPECT_EQ(statements, 6);  // and the two versions
  std::int64_t version = 0;
  EXPECT_EQ(readVersion(database, version), std::nullopt);
  EXPECT_EQ(version, static_cast<std::int64_t>(known) + 2);
  std::optional<std::int64_t> value;
  ASSERT_FALSE(database.number("SELECT count(*) FROM saved_groups WHERE owner = 'ops'", value));
  EXPECT_EQ(value, 1);
  ASSERT_FALSE(database.number("SELECT id FROM more", value));
  EXPECT_EQ(value, 4000000000);
  EXPECT_EQ(migrate(database, steps, [&] { ++statements; }), std::nullopt);
  EXPECT_EQ(statements, 6);  // nothing is left to do
}

TEST_P(SqlStoreTest, AMigrationThatFailsLeavesTheVersionBeforeIt) {
  open();
  store_->close();
  std::vector<Migration> steps = migrations();
  steps.push_back({"CREATE TABLE half (id $KEY)", "ALTER TABLE absent ADD COLUMN x TEXT"});
  Database database;
  ASSERT_FALSE(openBeside(settings_, database));
  const auto error = migrate(database, steps, {});
  ASSERT_TRUE(error.has_value());
  EXPECT_NE(error->find("cannot be changed to version " + std::to_string(steps.size())),
            std::string::npos)
      << *error;
  std::optional<std::int64_t> value;
  EXPECT_TRUE(database.number("SELECT count(*) FROM half", value).has_value());
  database.close();
  open();  // the version before it still works
}

TEST_P(SqlStoreTest, CountsCommitsAndTime) {
  open();
  const std::int64_t before = store_->state().lastCommit;
  EXPECT_EQ(before, 0);
  ASSERT_EQ(write({RemoveGroup{"a"}, RemoveGroup{"b"}}), std::nullopt);
  const StoreState state = store_->state();
  EXPECT_EQ(state.commits, 1U);
  EXPECT_EQ(state.changes, 2U);
  EXPECT_GT(state.lastCommit, 1500000000000);
  EXPECT_GT(state.commitSeconds, 0);
  EXPECT_EQ(state.commitSeconds, state.lastCommitSeconds);
  EXPECT_EQ(state.lastError, "");
}

}  // namespace
}  // namespace runelgw::test
