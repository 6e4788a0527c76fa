// SPDX-License-Identifier: Apache-2.0
// A store in memory. Completions run in `run`, as the I/O thread would run them later.
#ifndef FAKES_GATEWAY_FAKE_STORE_H_
#define FAKES_GATEWAY_FAKE_STORE_H_

#include <deque>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "gateway/store/store.h"

namespace runelgw {

class FakeStore : public Store {
 public:
  runel::Result<Snapshot> open() override { return Snapshot(); }
  void close() override {}
  void write(std::vector<Change> changes, Done done) override;
  void readAudit(AuditQuery query, Got<Page<AuditRecord>> got) override;
  void readHistory(HistoryQuery query, Got<Page<HistoryRecord>> got) override;
  void readClauses(ClauseQuery query, Got<Page<ClauseRecord>> got) override;
  void readOperations(OperationQuery query, Got<Page<OperationRecord>> got) override;
  void readResults(ResultQuery query, Got<Page<OperationResultRecord>> got) override;
  void backup(std::string path, Done done) override { (void)path, (void)done; }
  void removeOlder(Retention retention, Done done) override { (void)retention, (void)done; }
  [[nodiscard]] StoreState state() const override { return stateNow; }

  /// Runs the completions, and those that they cause.
  void run();
  [[nodiscard]] bool idle() const { return later_.empty(); }

  /// Runs only the oldest completion.
  void runOne();

  /// Not empty: writes and reads fail with it.
  std::string failure;
  StoreState stateNow;
  /// Each call of `write`.
  std::vector<std::vector<Change>> writes;
  std::map<std::uint64_t, TokenRecord> tokens;
  std::map<std::uint64_t, OperationRecord> operations;
  std::map<std::pair<std::uint64_t, DeviceId>, OperationResultRecord> results;
  std::map<std::string, std::string> settings;
  std::vector<AuditRecord> audit;
  std::vector<HistoryRecord> history;
  std::vector<ClauseRecord> clauses;

 private:
  void apply(const Change& change);
  template <typename Record, typename Wanted>
  void read(const std::vector<Record>& all, const PageRequest& page, Wanted wanted,
            Got<Page<Record>> got);

  std::deque<std::function<void()>> later_;
};

}  // namespace runelgw

#endif  // FAKES_GATEWAY_FAKE_STORE_H_
