// SPDX-License-Identifier: Apache-2.0
// The thread that commits changes.
#ifndef RUNELGW_STORE_WRITER_H_
#define RUNELGW_STORE_WRITER_H_

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "gateway/store/connect.h"
#include "gateway/store/tables.h"

namespace runelgw {

class Writer {
 public:
  Writer(const StoreSettings& settings, const Post& post);
  /// Stops it.
  ~Writer();
  Writer(const Writer&) = delete;
  Writer& operator=(const Writer&) = delete;

  /// Starts the thread on the open @p database.
  void start(std::unique_ptr<Database> database, const Counters& counters);
  /// Commits what is queued, up to the limit of the settings, and ends the thread.
  void stop();

  void write(std::vector<Change> changes, Store::Done done);
  void removeOlder(const Retention& retention, Store::Done done);
  /// Sets the members of @p state that are the writer's.
  void describe(StoreState& state) const;

 private:
  using SteadyTime = std::chrono::steady_clock::time_point;

  // The changes of one call.
  struct Group {
    std::vector<Change> changes;
    Store::Done done;
    std::size_t bytes = 0;
    bool finished = false;
    std::optional<std::string> error;
  };
  using Batch = std::vector<Group>;
  // One call of removeOlder: statements from `next` on are left.
  struct Removing {
    Retention retention;
    Store::Done done;
    std::vector<Removal> removals;
    std::size_t next = 0;
    bool started = false;
  };

  void run();
  [[nodiscard]] bool takeBatch(Batch& batch);
  void commitBatch(Batch& batch);
  Database::Failure commitTogether(Batch& batch);
  Database::Failure commitAlone(Batch& batch);
  Database::Failure commitGroup(Group& group);
  Database::Failure applyGroup(const Group& group);
  Database::Failure finish();
  void failUnfinished(Batch& batch) const;
  void report(Batch& batch);
  void removeStep();
  [[nodiscard]] bool recover(const DatabaseProblem& problem, std::chrono::milliseconds& delay);
  void reconnect();
  void tell(const DatabaseProblem& problem);
  void tell(const std::string& sentence, bool connected);
  void answer(Store::Done done, std::optional<std::string> error) const;
  void probe(const char* step) const;

  const StoreSettings& settings_;
  const Post& post_;
  std::thread thread_;

  // Of the thread.
  std::unique_ptr<Database> database_;
  Counters counters_;
  Counters savedCounters_;

  mutable std::mutex mutex_;  // guards what follows
  std::condition_variable changed_;
  std::deque<Group> queue_;
  std::deque<Removing> removals_;
  std::size_t queuedBytes_ = 0;
  bool running_ = false;
  bool stopping_ = false;
  SteadyTime stopBy_;
  StoreState state_;
};

}  // namespace runelgw

#endif  // RUNELGW_STORE_WRITER_H_
