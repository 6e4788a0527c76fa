// SPDX-License-Identifier: Apache-2.0
// One task on many devices, which continues after its caller has its answer.
//
// What the database says about a device is never wrong, also when the process ends at any moment.
// Before anything is sent, each device has a result "not run". Before a request is given to the
// router, the result of its device becomes "unknown", and the request waits for that commit. The
// answer replaces it.
#ifndef RUNELGW_API_OPERATIONS_H_
#define RUNELGW_API_OPERATIONS_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "gateway/api/task_json.h"
#include "gateway/auth/auth.h"
#include "gateway/core/permit.h"
#include "gateway/core/router.h"
#include "gateway/store/store.h"

namespace runelgw {

///@{
/// The states of an operation.
inline constexpr const char* kOperationRunning = "running";
inline constexpr const char* kOperationCancelling = "cancelling";  ///< never in the database
inline constexpr const char* kOperationDone = "done";
inline constexpr const char* kOperationCancelled = "cancelled";
inline constexpr const char* kOperationInterrupted =
    "interrupted";  ///< the gateway ended meanwhile
///@}

struct OperationWish {
  std::string who;
  std::string query;              ///< as the caller wrote it
  std::vector<DeviceId> devices;  ///< each once
  TaskWish task;
  std::size_t parallel = 100;
  std::shared_ptr<Permit> permit;  ///< asked again for each device
  ///@{
  /// An idempotency key: a name that is unique for it, and what must be the same. May be empty.
  std::string key;
  std::string fingerprint;
  ///@}
};

struct OperationLimits {
  std::size_t mostRunning = 100;
  std::size_t resultBytes = 65536;
  std::int64_t keyLifetime = 86400LL * 1000;  ///< of an idempotency key, in milliseconds
  std::size_t mostKeys = 10000;
};

class Operations {
 public:
  /// The error is one sentence.
  using Started = std::function<void(const std::optional<std::string>& error)>;

  /// @p changed is called when an operation begins or ends. The others must outlive it.
  Operations(Store& store, Router& router, OperationLimits limits, AuthClocks clocks,
             std::function<void(std::uint64_t)> changed);

  /// Marks what a former process did not end as interrupted, with counts of its results.
  void load(const Snapshot& snapshot);

  /// Whether one more may start.
  [[nodiscard]] bool hasRoom() const { return running_.size() < limits_.mostRunning; }
  /// Starts an operation and returns its id. @p started is called when it is stored; after an error
  /// nothing runs.
  std::uint64_t start(OperationWish wish, const Started& started);
  /// An operation that runs, or whose end is not stored yet. Null for any other.
  [[nodiscard]] const OperationRecord* find(std::uint64_t id) const;
  /// Whether the stored result of @p device is only a preliminary one.
  [[nodiscard]] bool isPending(std::uint64_t id, DeviceId device) const;
  /// Sends nothing more. What was sent is waited for. False if it does not run.
  bool cancel(std::uint64_t id);

  /// What was started with an idempotency key.
  struct Former {
    std::uint64_t id = 0;
    std::string fingerprint;
  };
  [[nodiscard]] const Former* findKey(const std::string& key) const;
  [[nodiscard]] bool hasRoomForKey() const { return keys_.size() < limits_.mostKeys; }

  /// All operations send nothing more.
  void stop();
  /// Forgets old keys, and stores again what could not be stored.
  void tick();
  [[nodiscard]] std::size_t running() const { return running_.size(); }

 private:
  enum class Step : unsigned char { waiting, marking, sent, done };
  struct Running {
    OperationRecord record;
    OperationWish wish;
    Payload request;
    std::vector<Step> steps;
    std::unordered_map<DeviceId, std::size_t> places;
    std::size_t next = 0;
    std::size_t inFlight = 0;  // marked or sent
    bool marking = false;
    bool cancelled = false;
    bool cut = false;     // some device was left out because of that, or because the gateway stops
    bool stored = false;  // the beginning
    bool ended = false;
    bool saving = false;
  };
  using RunningPtr = std::shared_ptr<Running>;
  struct Key {
    Former former;
    std::int64_t time = 0;
  };

  void store(std::vector<Change> changes, Store::Done done);
  void begin(const RunningPtr& operation, const Started& started);
  void pump(const RunningPtr& operation);
  void send(const RunningPtr& operation, const std::vector<std::size_t>& places);
  void sendOne(const RunningPtr& operation, std::size_t place);
  void conclude(const RunningPtr& operation, std::size_t place, OperationResultRecord result);
  void endRest(const RunningPtr& operation);
  void finish(const RunningPtr& operation);
  void saveEnd(const RunningPtr& operation);
  void recount(const std::shared_ptr<OperationRecord>& record, DeviceId cursor);
  [[nodiscard]] OperationResultRecord resultOf(const Running& operation, std::size_t place,
                                               Outcome outcome, std::string reason,
                                               std::string text) const;

  Store& store_;
  Router& router_;
  OperationLimits limits_;
  AuthClocks clocks_;
  std::function<void(std::uint64_t)> changed_;
  std::uint64_t next_ = 1;
  bool stopping_ = false;
  std::map<std::uint64_t, RunningPtr> running_;
  std::map<std::uint64_t, std::shared_ptr<OperationRecord>> interrupted_;  // not stored yet
  std::map<std::string, Key> keys_;
  std::shared_ptr<bool> alive_;
};

}  // namespace runelgw

#endif  // RUNELGW_API_OPERATIONS_H_
