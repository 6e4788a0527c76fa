// SPDX-License-Identifier: Apache-2.0
// Which columns the records have, the statements on them, and what each change executes.
#ifndef RUNELGW_STORE_TABLES_H_
#define RUNELGW_STORE_TABLES_H_

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "gateway/store/database.h"
#include "gateway/store/store.h"

namespace runelgw {

/// The tables whose ids count up and are never used again.
enum class Counter { devices, tokens, operations, history, audit, clauses };
inline constexpr std::size_t kCounters = 6;

/// The next id of each counter.
struct Counters {
  std::uint64_t next[kCounters] = {1, 1, 1, 1, 1, 1};

  std::uint64_t& operator[](Counter counter) { return next[static_cast<std::size_t>(counter)]; }
};

/// Gives @p change its id if it has none, and moves the counter behind the id.
void takeId(Change& change, Counters& counters);

/// Executes @p change in the current transaction.
Database::Failure apply(Database& database, const Change& change);

/// The approximate memory of @p change.
[[nodiscard]] std::size_t sizeOf(const Change& change);

/// Saves @p counters in the current transaction.
Database::Failure saveCounters(Database& database, const Counters& counters);
Database::Failure loadCounters(Database& database, Counters& counters);

/// Reads what the gateway holds in memory.
Database::Failure loadSnapshot(Database& database, Snapshot& snapshot);

///@{
/// Reads one page.
Database::Failure readPage(Database& database, const AuditQuery& query, Page<AuditRecord>& page);
Database::Failure readPage(Database& database, const HistoryQuery& query,
                           Page<HistoryRecord>& page);
Database::Failure readPage(Database& database, const ClauseQuery& query, Page<ClauseRecord>& page);
Database::Failure readPage(Database& database, const OperationQuery& query,
                           Page<OperationRecord>& page);
Database::Failure readPage(Database& database, const ResultQuery& query,
                           Page<OperationResultRecord>& page);
///@}

/// A statement that removes at most `kRemovalStep` old records.
struct Removal {
  std::string sql;
  std::vector<Value> values;
};
inline constexpr std::int64_t kRemovalStep = 500;
/// The statements of @p retention. Each is repeated until it changes nothing.
[[nodiscard]] std::vector<Removal> removalsOf(const Retention& retention, const Counters& counters);

}  // namespace runelgw

#endif  // RUNELGW_STORE_TABLES_H_
