// SPDX-License-Identifier: Apache-2.0
#include "gateway/store/tables.h"

#include <algorithm>
#include <array>
#include <type_traits>
#include <utility>

#include "gateway/store/columns.h"

namespace runelgw {

namespace {

/// The first portion of a page. The next ones are larger if the records are small; so large records
/// do not fill the memory.
constexpr std::size_t kPortion = 20;
/// A page ends when its records have this size.
constexpr std::size_t kPageBytes = 4U << 20U;

// The statements of one table.
struct TableSql {
  std::string table;
  ColumnNames columns;
  std::string save;
  std::string select;  // without a condition
};

std::string joined(const std::vector<std::string>& words, const std::string& between) {
  std::string text;
  for (const std::string& word : words) {
    text += (text.empty() ? "" : between) + word;
  }
  return text;
}

std::string upsertSql(const std::string& table, const ColumnNames& columns) {
  std::vector<std::string> places;
  std::vector<std::string> keys;
  std::vector<std::string> changes;
  for (std::size_t i = 0; i < columns.names().size(); ++i) {
    const std::string& name = columns.names()[i];
    places.push_back(":v" + std::to_string(i));
    if (i < columns.keys()) {
      keys.push_back(name);
    } else {
      changes.push_back(name);
      changes.back().append(" = excluded.").append(name);
    }
  }
  return "INSERT INTO " + table + " (" + joined(columns.names(), ", ") + ") VALUES (" +
         joined(places, ", ") + ") ON CONFLICT (" + joined(keys, ", ") + ") DO UPDATE SET " +
         joined(changes, ", ");
}

template <typename Record>
const TableSql& sqlOf() {
  static const TableSql kSql = [] {
    TableSql sql;
    Record record;
    visitColumns(sql.columns, record);
    sql.table = TableOf<Record>::kName;
    sql.save = upsertSql(sql.table, sql.columns);
    sql.select = "SELECT " + joined(sql.columns.names(), ", ") + " FROM " + sql.table;
    return sql;
  }();
  return kSql;
}

template <typename Record>
Database::Failure saveRecord(Database& database, const Record& record) {
  ColumnValues values;
  Record copy = record;  // the visitors take a record that they may change
  visitColumns(values, copy);
  return database.execute(sqlOf<Record>().save, std::move(values.values()));
}

DatabaseProblem damagedRow(const std::string& table, const std::string& column) {
  return {Trouble::corrupt, "the table " + table + " has an invalid value in " + column};
}

// Reads the rows of @p sql, which selects all columns of the record.
template <typename Record>
Database::Failure readRows(Database& database, const std::string& sql,
                           const std::vector<Value>& values, std::vector<Record>& records) {
  std::string damaged;
  Database::Failure failure =
      database.query(sql, values, sqlOf<Record>().columns.types(), [&](std::vector<Value>& row) {
        ColumnReader reader(row);
        visitColumns(reader, records.emplace_back());
        damaged = reader.damaged();
        return damaged.empty();
      });
  if (!failure && !damaged.empty()) {
    return damagedRow(sqlOf<Record>().table, damaged);
  }
  return failure;
}

template <typename Record>
Database::Failure loadTable(Database& database, std::vector<Record>& records,
                            const std::string& condition = {}) {
  const TableSql& sql = sqlOf<Record>();
  std::vector<std::string> keys(
      sql.columns.names().begin(),
      sql.columns.names().begin() + static_cast<std::ptrdiff_t>(sql.columns.keys()));
  return readRows(database, sql.select + condition + " ORDER BY " + joined(keys, ", "), {},
                  records);
}

// The conditions of a page with their parameters.
class Conditions {
 public:
  void add(const std::string& comparison, Value value) {
    text_ += (text_.empty() ? " WHERE " : " AND ") + comparison + place(std::move(value));
  }
  void equal(const char* column, const std::string& wanted) {
    if (!wanted.empty()) {
      add(std::string(column) + " = ", Value::of(escapedText(wanted)));
    }
  }
  void equal(const char* column, std::uint64_t wanted) {
    if (wanted != 0) {
      add(std::string(column) + " = ", Value::of(static_cast<std::int64_t>(wanted)));
    }
  }
  void within(const TimeRange& range) {
    if (range.since != 0) {
      add("time >= ", Value::of(range.since));
    }
    if (range.until != 0) {
      add("time < ", Value::of(range.until));
    }
  }
  [[nodiscard]] const std::string& text() const { return text_; }
  [[nodiscard]] const std::vector<Value>& values() const { return values_; }
  /// The name of a parameter with @p value.
  std::string place(Value value) {
    values_.push_back(std::move(value));
    return ":v" + std::to_string(values_.size() - 1);
  }

 private:
  std::string text_;
  std::vector<Value> values_;
};

template <typename Record>
std::size_t bytesOf(const Record& record);

// One portion of a page: rows behind @p cursor in the order of the request.
template <typename Record>
Database::Failure readPortion(Database& database, Conditions conditions, const char* key,
                              bool ascending, std::uint64_t cursor, std::size_t count,
                              std::vector<Record>& records) {
  if (cursor != 0) {
    conditions.add(std::string(key) + (ascending ? " > " : " < "),
                   Value::of(static_cast<std::int64_t>(cursor)));
  }
  std::string sql =
      sqlOf<Record>().select + conditions.text() + " ORDER BY " + key + (ascending ? "" : " DESC");
  const std::string limit = conditions.place(Value::of(static_cast<std::int64_t>(count)));
  sql += " LIMIT " + limit;
  return readRows(database, sql, conditions.values(), records);
}

// Reads portions until the page is full. One record more than the page has tells that another page
// follows.
template <typename Record, typename Key>
Database::Failure fillPage(Database& database, const Conditions& conditions,
                           const PageRequest& request, const char* key, bool ascending, Key keyOf,
                           Page<Record>& page) {
  const std::size_t limit = std::clamp<std::size_t>(request.limit, 1, kMaxPage);
  std::uint64_t cursor = request.cursor;
  std::size_t bytes = 0;
  for (std::size_t step = kPortion;; step *= bytes < kPageBytes / 16 ? 4 : 1) {
    std::vector<Record> portion;
    const std::size_t count = std::min(step, limit + 1 - page.items.size());
    if (Database::Failure failure =
            readPortion(database, conditions, key, ascending, cursor, count, portion)) {
      return failure;
    }
    for (Record& record : portion) {
      if (page.items.size() == limit || bytes > kPageBytes) {
        page.next = cursor;
        return {};
      }
      cursor = keyOf(record);
      bytes += bytesOf(record);
      page.items.push_back(std::move(record));
    }
    if (portion.size() < count) {
      return {};
    }
  }
}

template <typename Record>
std::uint64_t idOf(const Record& record) {
  return record.id;
}

// The approximate memory of a record: visits its texts.
class ByteCount {
 public:
  template <typename Number>
  void key(const char*, Number&) {}
  void textKey(const char*, std::string& value) { bytes_ += value.size(); }
  template <typename Number>
  void number(const char*, Number&) {}
  void optional(const char*, std::optional<std::uint64_t>&) {}
  void text(const char*, std::string& value, TextForm = TextForm::escaped) {
    bytes_ += value.size();
  }
  void list(const char*, std::vector<std::string>& value) {
    for (const std::string& item : value) {
      bytes_ += item.size() + sizeof(std::string);
    }
  }
  void decision(const char*, Decision&) {}

  [[nodiscard]] std::size_t bytes() const { return bytes_; }

 private:
  std::size_t bytes_ = 0;
};

template <typename Record>
std::size_t bytesOf(const Record& record) {
  ByteCount count;
  // The visitors take a record that they may change; this one does not.
  visitColumns(count,
               const_cast<Record&>(record));  // NOLINT(cppcoreguidelines-pro-type-const-cast)
  return sizeof(Record) + count.bytes();
}

constexpr std::array<const char*, kCounters> kCounterNames = {"devices", "tokens", "operations",
                                                              "history", "audit",  "clauses"};

// Gives changes their ids.
class IdTaker {
 public:
  explicit IdTaker(Counters& counters) : counters_(counters) {}

  void operator()(Append<HistoryRecord>& change) { give(Counter::history, change.record.id); }
  void operator()(Append<AuditRecord>& change) { give(Counter::audit, change.record.id); }
  void operator()(Append<ClauseRecord>& change) { give(Counter::clauses, change.record.id); }
  void operator()(Save<DeviceRecord>& change) { raise(Counter::devices, change.record.id); }
  void operator()(Save<TokenRecord>& change) { raise(Counter::tokens, change.record.id); }
  void operator()(Save<OperationRecord>& change) { raise(Counter::operations, change.record.id); }
  template <typename Other>
  void operator()(Other&) {}

 private:
  void give(Counter counter, std::uint64_t& id) { id = counters_[counter]++; }
  void raise(Counter counter, std::uint64_t id) {
    counters_[counter] = std::max(counters_[counter], id + 1);
  }

  Counters& counters_;
};

// Executes changes.
class Applier {
 public:
  explicit Applier(Database& database) : database_(database) {}

  template <typename Record>
  Database::Failure operator()(const Save<Record>& change) {
    return saveRecord(database_, change.record);
  }
  template <typename Record>
  Database::Failure operator()(const Append<Record>& change) {
    return saveRecord(database_, change.record);
  }
  Database::Failure operator()(const RemoveDevice& change) {
    for (const char* sql :
         {"DELETE FROM history WHERE device = :v0", "DELETE FROM clauses WHERE device = :v0",
          "DELETE FROM results WHERE device = :v0", "DELETE FROM tags WHERE device = :v0",
          "DELETE FROM devices WHERE id = :v0"}) {
      if (Database::Failure failure = remove(sql, change.device)) {
        return failure;
      }
    }
    return {};
  }
  Database::Failure operator()(const RemoveTag& change) {
    return database_.execute(
        "DELETE FROM tags WHERE device = :v0 AND name = :v1",
        {Value::of(static_cast<std::int64_t>(change.device)), Value::of(escapedText(change.name))});
  }
  Database::Failure operator()(const RemoveTagRule& change) {
    return remove("DELETE FROM tag_rules WHERE name = :v0", change.name);
  }
  Database::Failure operator()(const RemoveGroup& change) {
    return remove("DELETE FROM saved_groups WHERE name = :v0", change.name);
  }
  Database::Failure operator()(const RemoveAccess& change) {
    return database_.execute(
        "DELETE FROM access_list WHERE kind = :v0 AND value = :v1",
        {Value::of(escapedText(change.kind)), Value::of(escapedText(change.value))});
  }
  Database::Failure operator()(const RemoveToken& change) {
    return remove("DELETE FROM tokens WHERE id = :v0", change.id);
  }
  Database::Failure operator()(const RemoveSetting& change) {
    return remove("DELETE FROM settings WHERE name = :v0", change.name);
  }
  Database::Failure operator()(const RemoveOperation& change) {
    // Its results are removed with it, by their reference.
    return remove("DELETE FROM operations WHERE id = :v0", change.id);
  }

 private:
  Database::Failure remove(const char* sql, std::uint64_t key) {
    return database_.execute(sql, {Value::of(static_cast<std::int64_t>(key))});
  }
  Database::Failure remove(const char* sql, const std::string& key) {
    return database_.execute(sql, {Value::of(escapedText(key))});
  }

  Database& database_;
};

template <typename Record>
const Record* recordOf(const Save<Record>& change) {
  return &change.record;
}
template <typename Record>
const Record* recordOf(const Append<Record>& change) {
  return &change.record;
}

void addRemovals(const char* table, std::int64_t before, std::uint64_t rows, std::uint64_t next,
                 std::vector<Removal>& removals) {
  const std::string start =
      std::string("DELETE FROM ") + table + " WHERE id IN (SELECT id FROM " + table + " WHERE ";
  if (before != 0) {
    removals.push_back({start + "time < :v0 LIMIT :v1)", {Value::of(before), {}}});
  }
  if (rows != 0 && next > rows) {
    removals.push_back({start + "id < :v0 ORDER BY id LIMIT :v1)",
                        {Value::of(static_cast<std::int64_t>(next - rows)), {}}});
  }
}

}  // namespace

void takeId(Change& change, Counters& counters) {
  std::visit(IdTaker(counters), change);
}

Database::Failure apply(Database& database, const Change& change) {
  return std::visit(Applier(database), change);
}

std::size_t sizeOf(const Change& change) {
  return std::visit(
      [](const auto& one) -> std::size_t {
        using One = std::decay_t<decltype(one)>;
        if constexpr (std::is_same_v<One, RemoveTag> || std::is_same_v<One, RemoveTagRule> ||
                      std::is_same_v<One, RemoveGroup> || std::is_same_v<One, RemoveSetting>) {
          return sizeof(Change) + one.name.size();
        } else if constexpr (std::is_same_v<One, RemoveAccess>) {
          return sizeof(Change) + one.kind.size() + one.value.size();
        } else if constexpr (std::is_same_v<One, RemoveDevice> ||
                             std::is_same_v<One, RemoveToken> ||
                             std::is_same_v<One, RemoveOperation>) {
          return sizeof(Change);
        } else {
          return sizeof(Change) + bytesOf(*recordOf(one));
        }
      },
      change);
}

Database::Failure saveCounters(Database& database, const Counters& counters) {
  for (std::size_t i = 0; i < kCounters; ++i) {
    if (Database::Failure failure =
            database.execute("INSERT INTO counters (name, next) VALUES (:v0, :v1)"
                             " ON CONFLICT (name) DO UPDATE SET next = excluded.next",
                             {Value::of(std::string(kCounterNames.at(i))),
                              Value::of(static_cast<std::int64_t>(counters.next[i]))})) {
      return failure;
    }
  }
  return {};
}

Database::Failure loadCounters(Database& database, Counters& counters) {
  return database.query("SELECT name, next FROM counters", {}, "tn", [&](std::vector<Value>& row) {
    for (std::size_t i = 0; i < kCounters; ++i) {
      if (row[0].text == kCounterNames.at(i)) {
        counters.next[i] = static_cast<std::uint64_t>(std::max<std::int64_t>(row[1].number, 1));
      }
    }
    return true;
  });
}

Database::Failure loadSnapshot(Database& database, Snapshot& snapshot) {
  Database::Failure failure = loadTable(database, snapshot.devices);
  failure = failure ? failure : loadTable(database, snapshot.tags);
  failure = failure ? failure : loadTable(database, snapshot.tagRules);
  failure = failure ? failure : loadTable(database, snapshot.groups);
  failure = failure ? failure : loadTable(database, snapshot.access);
  failure = failure ? failure : loadTable(database, snapshot.tokens);
  failure = failure ? failure : loadTable(database, snapshot.settings);
  failure =
      failure ? failure : loadTable(database, snapshot.unfinished, " WHERE state = 'running'");
  return failure;
}

Database::Failure readPage(Database& database, const AuditQuery& query, Page<AuditRecord>& page) {
  Conditions conditions;
  conditions.within(query.time);
  conditions.equal("who", query.who);
  conditions.equal("what", query.what);
  conditions.equal("outcome", query.outcome);
  return fillPage(database, conditions, query.page, "id", query.page.oldestFirst, idOf<AuditRecord>,
                  page);
}

Database::Failure readPage(Database& database, const HistoryQuery& query,
                           Page<HistoryRecord>& page) {
  Conditions conditions;
  conditions.within(query.time);
  conditions.equal("device", query.device);
  conditions.equal("event", query.event);
  return fillPage(database, conditions, query.page, "id", query.page.oldestFirst,
                  idOf<HistoryRecord>, page);
}

Database::Failure readPage(Database& database, const ClauseQuery& query, Page<ClauseRecord>& page) {
  Conditions conditions;
  conditions.within(query.time);
  conditions.equal("device", query.device);
  return fillPage(database, conditions, query.page, "id", query.page.oldestFirst,
                  idOf<ClauseRecord>, page);
}

Database::Failure readPage(Database& database, const OperationQuery& query,
                           Page<OperationRecord>& page) {
  Conditions conditions;
  conditions.within(query.time);
  conditions.equal("id", query.id);
  conditions.equal("who", query.who);
  conditions.equal("state", query.state);
  return fillPage(database, conditions, query.page, "id", query.page.oldestFirst,
                  idOf<OperationRecord>, page);
}

Database::Failure readPage(Database& database, const ResultQuery& query,
                           Page<OperationResultRecord>& page) {
  Conditions conditions;
  conditions.add("operation = ", Value::of(static_cast<std::int64_t>(query.operation)));
  conditions.equal("device", query.device);
  conditions.equal("outcome", query.outcome);
  return fillPage(
      database, conditions, query.page, "device", true,
      [](const OperationResultRecord& record) { return record.device; }, page);
}

std::vector<Removal> removalsOf(const Retention& retention, const Counters& counters) {
  std::vector<Removal> removals;
  Counters next = counters;
  addRemovals("history", retention.historyBefore, retention.historyRows, next[Counter::history],
              removals);
  addRemovals("audit", retention.auditBefore, retention.auditRows, next[Counter::audit], removals);
  addRemovals("clauses", retention.clausesBefore, retention.clauseRows, next[Counter::clauses],
              removals);
  if (retention.outputsBefore != 0) {
    removals.push_back(
        {"UPDATE results SET output = '' WHERE (operation, device) IN (SELECT operation, device"
         " FROM results WHERE time < :v0 AND output <> '' LIMIT :v1)",
         {Value::of(retention.outputsBefore), {}}});
  }
  if (retention.operationsBefore != 0) {
    // The results first: removing an operation removes all of its results in one step.
    removals.push_back(
        {"DELETE FROM results WHERE (operation, device) IN (SELECT r.operation, r.device"
         " FROM results r JOIN operations o ON o.id = r.operation"
         " WHERE o.time < :v0 AND o.state <> 'running' LIMIT :v1)",
         {Value::of(retention.operationsBefore), {}}});
    removals.push_back(
        {"DELETE FROM operations WHERE id IN (SELECT id FROM operations"
         " WHERE time < :v0 AND state <> 'running' LIMIT :v1)",
         {Value::of(retention.operationsBefore), {}}});
  }
  for (Removal& removal : removals) {
    removal.values[1] = Value::of(kRemovalStep);
  }
  return removals;
}

}  // namespace runelgw
