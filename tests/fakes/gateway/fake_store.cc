// SPDX-License-Identifier: Apache-2.0
#include "fakes/gateway/fake_store.h"

#include <algorithm>
#include <cerrno>
#include <type_traits>

namespace runelgw {
namespace {

std::uint64_t keyOf(const OperationResultRecord& record) {
  return record.device;
}
template <typename Record>
std::uint64_t keyOf(const Record& record) {
  return record.id;
}

bool isWithin(const TimeRange& range, std::int64_t time) {
  return time >= range.since && (range.until == 0 || time < range.until);
}

template <typename Value>
bool fits(const Value& wanted, const Value& value) {
  return wanted == Value() || wanted == value;
}

}  // namespace

void FakeStore::run() {
  while (!later_.empty()) {
    runOne();
  }
}

void FakeStore::runOne() {
  const std::function<void()> call = std::move(later_.front());
  later_.pop_front();
  call();
}

void FakeStore::later(std::function<void()> call) {
  later_.push_back(std::move(call));
  if (immediate) {
    run();
  }
}

void FakeStore::finish(Done done, const std::string& error) {
  later([done = std::move(done), error] {
    if (done) {
      done(error.empty() ? std::nullopt : std::optional(error));
    }
  });
}

namespace {
template <typename Map>
auto valuesOf(const Map& map) {
  std::vector<typename Map::mapped_type> values;
  for (const auto& [key, value] : map) {
    values.push_back(value);
  }
  return values;
}
}  // namespace

runel::Result<Snapshot> FakeStore::open() {
  if (!failure.empty()) {
    return runel::Error(runel::Kind::local, runel::Cause::other, failure, EIO);
  }
  closed_ = false;
  stateNow.connected = true;
  Snapshot snapshot;
  snapshot.devices = valuesOf(devices);
  snapshot.tags = valuesOf(tags);
  snapshot.tagRules = valuesOf(tagRules);
  snapshot.groups = valuesOf(groups);
  snapshot.access = valuesOf(access);
  snapshot.tokens = valuesOf(tokens);
  for (const auto& [name, value] : settings) {
    snapshot.settings.push_back({name, value});
  }
  for (const auto& [id, operation] : operations) {
    if (operation.state == "running") {
      snapshot.unfinished.push_back(operation);
    }
  }
  snapshot.nextDevice = nextDevice_;
  snapshot.nextToken = nextToken_;
  snapshot.nextOperation = nextOperation_;
  return snapshot;
}

// The references between the tables, in the order of the changes.
std::string FakeStore::whyRefused(const std::vector<Change>& changes) const {
  if (closed_) {
    return "the database is closed";
  }
  if (!failure.empty()) {
    return failure;
  }
  if (longestWrite != 0 && changes.size() > longestWrite) {
    return "the database: the queue is full";
  }
  std::map<std::pair<bool, std::uint64_t>, bool> changed;  // devices and operations
  const auto exists = [&](bool isDevice, std::uint64_t id) {
    const auto found = changed.find({isDevice, id});
    return found != changed.end() ? found->second
                                  : (isDevice ? devices.count(id) : operations.count(id)) != 0;
  };
  for (const Change& change : changes) {
    if (const auto* save = std::get_if<Save<DeviceRecord>>(&change)) {
      changed[{true, save->record.id}] = true;
    } else if (const auto* remove = std::get_if<RemoveDevice>(&change)) {
      changed[{true, remove->device}] = false;
    } else if (const auto* begin = std::get_if<Save<OperationRecord>>(&change)) {
      changed[{false, begin->record.id}] = true;
    } else if (const auto* end = std::get_if<RemoveOperation>(&change)) {
      changed[{false, end->id}] = false;
    } else if (const auto* tag = std::get_if<Save<TagRecord>>(&change)) {
      if (!exists(true, tag->record.device)) {
        return "the database: a tag of an absent device";
      }
    } else if (const auto* result = std::get_if<Save<OperationResultRecord>>(&change)) {
      if (!exists(false, result->record.operation)) {
        return "the database: a result of an absent operation";
      }
    }
  }
  return "";
}

namespace {
template <typename Map, typename Condition>
void removeFrom(Map& map, Condition condition) {
  for (auto item = map.begin(); item != map.end();) {
    item = condition(item->second) ? map.erase(item) : std::next(item);
  }
}

template <typename Record, typename Condition>
void removeFrom(std::vector<Record>& records, Condition condition) {
  records.erase(std::remove_if(records.begin(), records.end(), condition), records.end());
}

}  // namespace

struct FakeStore::Applier {
  FakeStore& store;

  void operator()(const Save<DeviceRecord>& change) const {
    store.devices[change.record.id] = change.record;
    store.nextDevice_ = std::max(store.nextDevice_, change.record.id + 1);
  }
  void operator()(const Save<TagRecord>& change) const {
    store.tags[{change.record.device, change.record.name}] = change.record;
  }
  void operator()(const Save<TagRuleRecord>& change) const {
    store.tagRules[change.record.name] = change.record;
  }
  void operator()(const Save<GroupRecord>& change) const {
    store.groups[change.record.name] = change.record;
  }
  void operator()(const Save<AccessRecord>& change) const {
    store.access[{change.record.kind, change.record.value}] = change.record;
  }
  void operator()(const Save<TokenRecord>& change) const {
    store.tokens[change.record.id] = change.record;
    store.nextToken_ = std::max(store.nextToken_, change.record.id + 1);
  }
  void operator()(const Save<SettingRecord>& change) const {
    store.settings[change.record.name] = change.record.value;
  }
  void operator()(const Save<OperationRecord>& change) const {
    store.operations[change.record.id] = change.record;
    store.nextOperation_ = std::max(store.nextOperation_, change.record.id + 1);
  }
  void operator()(const Save<OperationResultRecord>& change) const {
    store.results[{change.record.operation, change.record.device}] = change.record;
  }
  void operator()(const Append<HistoryRecord>& change) const {
    store.history.push_back(change.record);
    store.history.back().id = store.nextHistory_++;
  }
  void operator()(const Append<AuditRecord>& change) const {
    store.audit.push_back(change.record);
    store.audit.back().id = store.nextAudit_++;
  }
  void operator()(const Append<ClauseRecord>& change) const {
    store.clauses.push_back(change.record);
    store.clauses.back().id = store.nextClause_++;
  }
  void operator()(const RemoveDevice& change) const {
    const auto isOfDevice = [&](const auto& record) { return record.device == change.device; };
    removeFrom(store.tags, isOfDevice);
    removeFrom(store.history, isOfDevice);
    removeFrom(store.clauses, isOfDevice);
    removeFrom(store.results, isOfDevice);
    store.devices.erase(change.device);
  }
  void operator()(const RemoveTag& change) const { store.tags.erase({change.device, change.name}); }
  void operator()(const RemoveTagRule& change) const { store.tagRules.erase(change.name); }
  void operator()(const RemoveGroup& change) const { store.groups.erase(change.name); }
  void operator()(const RemoveAccess& change) const {
    store.access.erase({change.kind, change.value});
  }
  void operator()(const RemoveToken& change) const { store.tokens.erase(change.id); }
  void operator()(const RemoveSetting& change) const { store.settings.erase(change.name); }
  void operator()(const RemoveOperation& change) const {
    removeFrom(store.results, [&](const auto& record) { return record.operation == change.id; });
    store.operations.erase(change.id);
  }
};

void FakeStore::write(std::vector<Change> changes, Done done) {
  const std::string error = whyRefused(changes);
  if (error.empty()) {
    for (const Change& change : changes) {
      std::visit(Applier{*this}, change);
    }
    writes.push_back(std::move(changes));
  }
  finish(std::move(done), error);
}

void FakeStore::backup(std::string path, Done done) {
  const std::string error = whyRefused({});
  if (error.empty()) {
    backups.push_back(std::move(path));
  }
  finish(std::move(done), error);
}

namespace {
template <typename Record>
void removeOld(std::vector<Record>& records, std::int64_t before, std::uint64_t rows,
               std::uint64_t next) {
  removeFrom(records, [&](const Record& record) {
    return record.time < before || (rows != 0 && record.id + rows < next);
  });
}
}  // namespace

void FakeStore::removeOlder(Retention retention, Done done) {
  const std::string error = whyRefused({});
  if (error.empty()) {
    removeOld(history, retention.historyBefore, retention.historyRows, nextHistory_);
    removeOld(audit, retention.auditBefore, retention.auditRows, nextAudit_);
    removeOld(clauses, retention.clausesBefore, retention.clauseRows, nextClause_);
    for (auto& [key, result] : results) {
      result.output = result.time < retention.outputsBefore ? "" : result.output;
    }
    const auto isOld = [&](const OperationRecord& operation) {
      return operation.time < retention.operationsBefore && operation.state != "running";
    };
    removeFrom(results, [&](const OperationResultRecord& result) {
      return isOld(operations[result.operation]);
    });
    removeFrom(operations, isOld);
    removals.push_back(retention);
  }
  finish(std::move(done), error);
}

template <typename Record, typename Wanted>
void FakeStore::read(const std::vector<Record>& all, const PageRequest& page, Wanted wanted,
                     Got<Page<Record>> got) {
  if (const std::string text = whyRefused({}); !text.empty()) {
    later([got = std::move(got), text] {
      got(runel::Error(runel::Kind::local, runel::Cause::other, text, EIO));
    });
    return;
  }
  std::vector<Record> matching;
  std::copy_if(all.begin(), all.end(), std::back_inserter(matching), wanted);
  const bool ascending = page.oldestFirst || std::is_same_v<Record, OperationResultRecord>;
  std::sort(matching.begin(), matching.end(), [&](const Record& left, const Record& right) {
    return ascending ? keyOf(left) < keyOf(right) : keyOf(left) > keyOf(right);
  });
  Page<Record> result;
  const std::size_t limit = std::clamp<std::size_t>(page.limit, 1, kMaxPage);
  for (Record& record : matching) {
    const std::uint64_t key = keyOf(record);
    const bool skipped = page.cursor != 0 && (ascending ? key <= page.cursor : key >= page.cursor);
    if (skipped) {
      continue;
    }
    if (result.items.size() == limit) {
      result.next = keyOf(result.items.back());
      break;
    }
    result.items.push_back(std::move(record));
  }
  later([got = std::move(got), result = std::move(result)] { got(result); });
}

void FakeStore::readAudit(AuditQuery query, Got<Page<AuditRecord>> got) {
  read(
      audit, query.page,
      [&](const AuditRecord& record) {
        return isWithin(query.time, record.time) && fits(query.who, record.who) &&
               fits(query.what, record.what) && fits(query.outcome, record.outcome);
      },
      std::move(got));
}

void FakeStore::readHistory(HistoryQuery query, Got<Page<HistoryRecord>> got) {
  read(
      history, query.page,
      [&](const HistoryRecord& record) {
        return isWithin(query.time, record.time) && fits(query.device, record.device) &&
               fits(query.event, record.event);
      },
      std::move(got));
}

void FakeStore::readClauses(ClauseQuery query, Got<Page<ClauseRecord>> got) {
  read(
      clauses, query.page,
      [&](const ClauseRecord& record) {
        return isWithin(query.time, record.time) && fits(query.device, record.device);
      },
      std::move(got));
}

void FakeStore::readOperations(OperationQuery query, Got<Page<OperationRecord>> got) {
  std::vector<OperationRecord> all;
  for (const auto& [id, record] : operations) {
    all.push_back(record);
  }
  read(
      all, query.page,
      [&](const OperationRecord& record) {
        return isWithin(query.time, record.time) && fits(query.id, record.id) &&
               fits(query.who, record.who) && fits(query.state, record.state);
      },
      std::move(got));
}

void FakeStore::readResults(ResultQuery query, Got<Page<OperationResultRecord>> got) {
  std::vector<OperationResultRecord> all;
  for (const auto& [key, record] : results) {
    all.push_back(record);
  }
  read(
      all, query.page,
      [&](const OperationResultRecord& record) {
        return record.operation == query.operation && fits(query.device, record.device) &&
               fits(query.outcome, record.outcome);
      },
      std::move(got));
}

}  // namespace runelgw
