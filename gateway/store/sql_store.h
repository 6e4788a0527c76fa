// SPDX-License-Identifier: Apache-2.0
// The store in a SQLite file or a PostgreSQL database.
#ifndef RUNELGW_STORE_SQL_STORE_H_
#define RUNELGW_STORE_SQL_STORE_H_

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>

#include "gateway/store/store.h"

namespace runelgw {

/// Runs a function later on the I/O thread. Called from the threads of the store; a program without
/// a loop may run the function at once.
using Post = std::function<void(std::function<void()>)>;

struct StoreSettings {
  /// The path of a SQLite file, or "postgresql://...".
  std::string database = "/var/lib/runelgw/fleet.db";
  /// Threads that read; each has a connection.
  std::size_t readers = 2;
  ///@{
  /// Limits of what waits for the writer, and of the reads that wait for a reader.
  std::size_t queuedChanges = 200000;
  std::size_t queuedBytes = 64U << 20U;
  std::size_t queuedReads = 64;
  ///@}
  /// How long a read may wait for a reader.
  std::chrono::milliseconds readTimeout = std::chrono::seconds(10);
  /// How long to wait for the lock of another program.
  std::chrono::milliseconds lockTimeout = std::chrono::seconds(5);
  /// The limit of one statement on a server.
  std::chrono::milliseconds statementTimeout = std::chrono::seconds(60);
  /// How long `close` tries to commit what is queued.
  std::chrono::milliseconds closeTimeout = std::chrono::seconds(10);
  /// For tests: called by the writer and by migrations at each step of a transaction.
  std::function<void(const char* step)> probe;
};

/// One writer thread commits the changes in batches: a batch is what came while the previous one
/// was committed. A group of changes that fails is repeated alone, so that it does not fail others.
/// While the server is out of reach the writer repeats the batch.
class SqlStore : public Store {
 public:
  SqlStore(StoreSettings settings, Post post);
  /// Closes it.
  ~SqlStore() override;

  runel::Result<Snapshot> open() override;
  void close() override;
  void write(std::vector<Change> changes, Done done) override;
  void readAudit(AuditQuery query, Got<Page<AuditRecord>> got) override;
  void readHistory(HistoryQuery query, Got<Page<HistoryRecord>> got) override;
  void readClauses(ClauseQuery query, Got<Page<ClauseRecord>> got) override;
  void readOperations(OperationQuery query, Got<Page<OperationRecord>> got) override;
  void readResults(ResultQuery query, Got<Page<OperationResultRecord>> got) override;
  void backup(std::string path, Done done) override;
  void removeOlder(Retention retention, Done done) override;
  [[nodiscard]] StoreState state() const override;

 private:
  struct Parts;

  template <typename Query, typename Record>
  void read(Query query, Got<Page<Record>> got);

  const StoreSettings settings_;
  const Post post_;
  std::unique_ptr<Parts> parts_;
};

/// Replaces the SQLite file of @p settings by the backup @p path: by a checked copy, in one step.
/// BLOCKS. Fails with one sentence and without a change while a gateway uses the database.
[[nodiscard]] runel::Result<void> restoreDatabase(const StoreSettings& settings,
                                                  const std::string& path);

}  // namespace runelgw

#endif  // RUNELGW_STORE_SQL_STORE_H_
