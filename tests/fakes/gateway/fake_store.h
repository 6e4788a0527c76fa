// SPDX-License-Identifier: Apache-2.0
// A store in memory, which keeps the rules of the real one: the tests of the store run on it too.
// Completions run in `run`, as the I/O thread would run them later.
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
  /// What it holds, as after a restart.
  runel::Result<Snapshot> open() override;
  void close() override { closed_ = true; }
  void write(std::vector<Change> changes, Done done) override;
  void readAudit(AuditQuery query, Got<Page<AuditRecord>> got) override;
  void readHistory(HistoryQuery query, Got<Page<HistoryRecord>> got) override;
  void readClauses(ClauseQuery query, Got<Page<ClauseRecord>> got) override;
  void readOperations(OperationQuery query, Got<Page<OperationRecord>> got) override;
  void readResults(ResultQuery query, Got<Page<OperationResultRecord>> got) override;
  /// Only remembers the path.
  void backup(std::string path, Done done) override;
  void removeOlder(Retention retention, Done done) override;
  [[nodiscard]] StoreState state() const override { return stateNow; }

  /// Runs the completions, and those that they cause.
  void run();
  [[nodiscard]] bool idle() const { return later_.empty(); }

  /// Runs only the oldest completion.
  void runOne();

  /// Not empty: all calls fail with it.
  std::string failure;
  /// Not 0: writes fail that are longer than this many changes, as with a full queue.
  std::size_t longestWrite = 0;
  /// Each completion runs before its call returns.
  bool immediate = false;
  StoreState stateNow;
  /// Each call of `write`.
  std::vector<std::vector<Change>> writes;
  /// The paths of the backups, and the calls of removeOlder.
  std::vector<std::string> backups;
  std::vector<Retention> removals;
  std::map<DeviceId, DeviceRecord> devices;
  std::map<std::pair<DeviceId, std::string>, TagRecord> tags;
  std::map<std::string, TagRuleRecord> tagRules;
  std::map<std::string, GroupRecord> groups;
  std::map<std::pair<std::string, std::string>, AccessRecord> access;
  std::map<std::uint64_t, TokenRecord> tokens;
  std::map<std::uint64_t, OperationRecord> operations;
  std::map<std::pair<std::uint64_t, DeviceId>, OperationResultRecord> results;
  std::map<std::string, std::string> settings;
  std::vector<AuditRecord> audit;
  std::vector<HistoryRecord> history;
  std::vector<ClauseRecord> clauses;

 private:
  struct Applier;

  [[nodiscard]] std::string whyRefused(const std::vector<Change>& changes) const;
  void later(std::function<void()> call);
  void finish(Done done, const std::string& error);
  template <typename Record, typename Wanted>
  void read(const std::vector<Record>& all, const PageRequest& page, Wanted wanted,
            Got<Page<Record>> got);

  std::deque<std::function<void()>> later_;
  bool closed_ = false;
  ///@{
  /// The ids that were never used.
  DeviceId nextDevice_ = 1;
  std::uint64_t nextToken_ = 1;
  std::uint64_t nextOperation_ = 1;
  std::uint64_t nextAudit_ = 1;
  std::uint64_t nextHistory_ = 1;
  std::uint64_t nextClause_ = 1;
  ///@}
};

}  // namespace runelgw

#endif  // FAKES_GATEWAY_FAKE_STORE_H_
