// SPDX-License-Identifier: Apache-2.0
// Where the gateway keeps what must survive a restart.
#ifndef RUNELGW_STORE_STORE_H_
#define RUNELGW_STORE_STORE_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include <runel/result.h>

#include "gateway/store/records.h"

namespace runelgw {

/// Writes a record. A record with the same key is replaced as a whole.
template <typename Record>
struct Save {
  Record record;
};

/// Adds a record. The store gives it its id; the id in the record is ignored.
template <typename Record>
struct Append {
  Record record;
};

///@{
/// Removes the record with this key; its absence is no error.
/// A device is removed with its tags, history, clauses and results, an operation with its results.
struct RemoveDevice {
  DeviceId device = 0;
};
struct RemoveTag {
  DeviceId device = 0;
  std::string name;
};
struct RemoveTagRule {
  std::string name;
};
struct RemoveGroup {
  std::string name;
};
struct RemoveAccess {
  std::string kind;
  std::string value;
};
struct RemoveToken {
  std::uint64_t id = 0;
};
struct RemoveSetting {
  std::string name;
};
struct RemoveOperation {
  std::uint64_t id = 0;
};
///@}

/// One change of one record.
using Change =
    std::variant<Save<DeviceRecord>, Save<TagRecord>, Save<TagRuleRecord>, Save<GroupRecord>,
                 Save<AccessRecord>, Save<TokenRecord>, Save<SettingRecord>, Save<OperationRecord>,
                 Save<OperationResultRecord>, Append<HistoryRecord>, Append<AuditRecord>,
                 Append<ClauseRecord>, RemoveDevice, RemoveTag, RemoveTagRule, RemoveGroup,
                 RemoveAccess, RemoveToken, RemoveSetting, RemoveOperation>;

/// What the gateway holds in memory, as the database has it at the start.
struct Snapshot {
  std::vector<DeviceRecord> devices;
  std::vector<TagRecord> tags;
  std::vector<TagRuleRecord> tagRules;
  std::vector<GroupRecord> groups;
  std::vector<AccessRecord> access;
  std::vector<TokenRecord> tokens;
  std::vector<SettingRecord> settings;
  /// Operations in the state "running": the process before this one did not end them.
  std::vector<OperationRecord> unfinished;
  ///@{
  /// The first ids that were never used. Callers count on from here.
  DeviceId nextDevice = 1;
  std::uint64_t nextToken = 1;
  std::uint64_t nextOperation = 1;
  ///@}
};

/// The most records of a page.
inline constexpr std::size_t kMaxPage = 1000;

/// Which page of a list. The pages stay the same while records are added: a cursor is an id.
struct PageRequest {
  std::uint64_t cursor = 0;  ///< `Page::next` of the page before; 0: the first page
  std::size_t limit = 100;   ///< 1 to `kMaxPage`; other values are changed to the nearest of these
  bool oldestFirst = false;
};

/// Some records of a list.
template <typename Record>
struct Page {
  std::vector<Record> items;
  std::uint64_t next = 0;  ///< the cursor of the next page; 0: this is the last one
};

/// Records from `since` on and before `until`, in milliseconds since 1970; 0: no limit.
struct TimeRange {
  std::int64_t since = 0;
  std::int64_t until = 0;
};

/// Empty strings and 0 match all records.
struct AuditQuery {
  PageRequest page;
  TimeRange time;
  std::string who;
  std::string what;
  std::string outcome;
};
struct HistoryQuery {
  PageRequest page;
  TimeRange time;
  DeviceId device = 0;
  std::string event;
};
struct ClauseQuery {
  PageRequest page;
  TimeRange time;
  DeviceId device = 0;
};
struct OperationQuery {
  PageRequest page;
  TimeRange time;
  std::uint64_t id = 0;
  std::string who;
  std::string state;
};
/// The cursor of the results is the id of a device.
struct ResultQuery {
  PageRequest page;
  std::uint64_t operation = 0;
  DeviceId device = 0;
  std::string outcome;
};

/// What to remove. Times in milliseconds since 1970: older records are removed; 0: none by their
/// age. Rows: only the newest that many remain; 0: none by their number.
struct Retention {
  std::int64_t historyBefore = 0;
  std::int64_t auditBefore = 0;
  std::int64_t clausesBefore = 0;
  std::int64_t operationsBefore = 0;  ///< with their results; running ones remain
  std::int64_t outputsBefore = 0;     ///< the outputs of results; the results themselves remain
  std::uint64_t historyRows = 0;
  std::uint64_t auditRows = 0;
  std::uint64_t clauseRows = 0;
};

/// The state of the store, for metrics and the question whether the gateway is ready.
struct StoreState {
  bool connected = false;  ///< the last attempt to reach the database succeeded
  std::size_t queued = 0;  ///< changes that are not committed
  std::int64_t lastCommit = 0;
  std::uint64_t commits = 0;
  std::uint64_t changes = 0;  ///< committed changes
  std::uint64_t failed = 0;   ///< calls of `write` that the database refused
  std::uint64_t refused = 0;  ///< calls of `write` and reads for which a queue had no room
  double commitSeconds = 0;   ///< the duration of all commits
  double lastCommitSeconds = 0;
  std::size_t readsWaiting = 0;
  std::uint64_t reads = 0;
  double readSeconds = 0;
  std::string lastError;  ///< one sentence; empty when the last attempt succeeded
};

/// The interface. Operations with a callback return at once: the callback runs exactly once, later,
/// on the I/O thread. All operations are called on that thread.
class Store {
 public:
  /// Receives nothing for success, or one sentence.
  using Done = std::function<void(std::optional<std::string> error)>;
  template <typename Value>
  using Got = std::function<void(runel::Result<Value>)>;

  Store() = default;
  virtual ~Store() = default;
  Store(const Store&) = delete;
  Store& operator=(const Store&) = delete;

  /// Opens the database, brings its schema up to date and reads what the gateway holds in memory.
  /// BLOCKS: call it before the loop runs. The error is one sentence that says what to do.
  virtual runel::Result<Snapshot> open() = 0;

  /// Commits the queued changes and ends the threads. BLOCKS up to a limit; what cannot be
  /// committed until then fails. Later calls fail.
  virtual void close() = 0;

  /// Writes @p changes in their order, all or none. Calls take effect in their order. After a
  /// success of
  /// @p done they survive a crash of the process and a power cut. While the database is out of
  /// reach they stay queued. @p done fails at once when the queue is full.
  virtual void write(std::vector<Change> changes, Done done) = 0;

  ///@{
  /// Read one page: newest first, unless the request asks for the oldest; the results by device.
  virtual void readAudit(AuditQuery query, Got<Page<AuditRecord>> got) = 0;
  virtual void readHistory(HistoryQuery query, Got<Page<HistoryRecord>> got) = 0;
  virtual void readClauses(ClauseQuery query, Got<Page<ClauseRecord>> got) = 0;
  virtual void readOperations(OperationQuery query, Got<Page<OperationRecord>> got) = 0;
  virtual void readResults(ResultQuery query, Got<Page<OperationResultRecord>> got) = 0;
  ///@}

  /// Writes a copy of the whole database to the file @p path, while writes continue. The file
  /// appears only when it is complete.
  virtual void backup(std::string path, Done done) = 0;

  /// Removes old records in small steps, between which other writes are committed.
  virtual void removeOlder(Retention retention, Done done) = 0;

  [[nodiscard]] virtual StoreState state() const = 0;
};

}  // namespace runelgw

#endif  // RUNELGW_STORE_STORE_H_
