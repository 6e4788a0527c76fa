// SPDX-License-Identifier: Apache-2.0
// The threads that read.
#ifndef RUNELGW_STORE_READER_POOL_H_
#define RUNELGW_STORE_READER_POOL_H_

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "gateway/store/connect.h"

namespace runelgw {

class ReaderPool {
 public:
  /// One read. `run` may be called twice; `finish` is called once, on any thread.
  struct Job {
    std::function<Database::Failure(Database&)> run;
    std::function<void(std::optional<std::string> error)> finish;
  };

  explicit ReaderPool(const StoreSettings& settings);
  /// Stops it.
  ~ReaderPool();
  ReaderPool(const ReaderPool&) = delete;
  ReaderPool& operator=(const ReaderPool&) = delete;

  void start();
  /// Fails what waits, and ends the threads after what they read now.
  void stop();

  void add(Job job);
  /// Sets the members of @p state that are the readers', and adds what was refused.
  void describe(StoreState& state) const;

 private:
  using SteadyTime = std::chrono::steady_clock::time_point;
  struct Waiting {
    Job job;
    SteadyTime deadline;
  };

  void run();
  [[nodiscard]] bool take(Waiting& waiting);
  void read(Database& database, Waiting& waiting);
  /// Moves the jobs that waited too long to @p late. The lock is held.
  void takeLate(std::vector<Job>& late);
  void refuse(std::vector<Job>& jobs, const std::string& why) const;

  const StoreSettings& settings_;
  std::vector<std::thread> threads_;

  mutable std::mutex mutex_;  // guards what follows
  std::condition_variable changed_;
  std::deque<Waiting> queue_;
  bool running_ = false;
  std::uint64_t reads_ = 0;
  std::uint64_t refused_ = 0;
  double seconds_ = 0;
};

}  // namespace runelgw

#endif  // RUNELGW_STORE_READER_POOL_H_
