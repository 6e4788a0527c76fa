// SPDX-License-Identifier: Apache-2.0
#include "gateway/store/reader_pool.h"

#include <algorithm>
#include <utility>

namespace runelgw {

ReaderPool::ReaderPool(const StoreSettings& settings) : settings_(settings) {}

ReaderPool::~ReaderPool() {
  stop();
}

void ReaderPool::start() {
  {
    const std::lock_guard<std::mutex> guard(mutex_);
    running_ = true;
  }
  for (std::size_t i = 0; i < std::max<std::size_t>(settings_.readers, 1); ++i) {
    threads_.emplace_back([this] { run(); });
  }
}

void ReaderPool::stop() {
  std::vector<Job> left;
  {
    const std::lock_guard<std::mutex> guard(mutex_);
    running_ = false;
    for (Waiting& waiting : queue_) {
      left.push_back(std::move(waiting.job));
    }
    queue_.clear();
  }
  changed_.notify_all();
  refuse(left, " is closed");
  for (std::thread& thread : threads_) {
    thread.join();
  }
  threads_.clear();
}

void ReaderPool::refuse(std::vector<Job>& jobs, const std::string& why) const {
  for (Job& job : jobs) {
    job.finish(nameOf(settings_) + why);
  }
}

void ReaderPool::takeLate(std::vector<Job>& late) {
  const SteadyTime now = std::chrono::steady_clock::now();
  while (!queue_.empty() && queue_.front().deadline <= now) {
    late.push_back(std::move(queue_.front().job));
    queue_.pop_front();
    refused_ += 1;
  }
}

void ReaderPool::add(Job job) {
  std::vector<Job> late;
  std::vector<Job> refused;
  std::string why;
  {
    const std::lock_guard<std::mutex> guard(mutex_);
    takeLate(late);
    if (!running_) {
      why = " is closed";
      refused.push_back(std::move(job));
    } else if (queue_.size() >= settings_.queuedReads) {
      why = ": " + std::to_string(queue_.size()) + " reads wait; try again later";
      refused.push_back(std::move(job));
      refused_ += 1;
    } else {
      queue_.push_back({std::move(job), std::chrono::steady_clock::now() + settings_.readTimeout});
      changed_.notify_one();
    }
  }
  refuse(late, ": no reader was free in time; try again later");
  refuse(refused, why);
}

void ReaderPool::describe(StoreState& state) const {
  const std::lock_guard<std::mutex> guard(mutex_);
  state.readsWaiting = queue_.size();
  state.reads = reads_;
  state.readSeconds = seconds_;
  state.refused += refused_;
}

// Waits for a job. False: the pool stops.
bool ReaderPool::take(Waiting& waiting) {
  std::unique_lock<std::mutex> lock(mutex_);
  while (true) {
    changed_.wait(lock, [this] { return !running_ || !queue_.empty(); });
    if (!running_) {
      return false;
    }
    std::vector<Job> late;
    takeLate(late);
    if (!queue_.empty()) {
      waiting = std::move(queue_.front());
      queue_.pop_front();
    }
    const bool found = waiting.job.finish != nullptr;
    lock.unlock();
    refuse(late, ": no reader was free in time; try again later");
    if (found) {
      return true;
    }
    lock.lock();
  }
}

void ReaderPool::run() {
  Database database;
  while (true) {
    Waiting waiting;
    if (!take(waiting)) {
      return;
    }
    read(database, waiting);
  }
}

void ReaderPool::read(Database& database, Waiting& waiting) {
  const SteadyTime start = std::chrono::steady_clock::now();
  Database::Failure failure;
  // A server that was restarted ended the connection: the second attempt has a new one.
  for (int attempt = 0; attempt < 2; ++attempt) {
    failure = database.isOpen() ? Database::Failure() : connectReader(settings_, database);
    failure = failure ? failure : waiting.job.run(database);
    if (!failure || database.works()) {
      break;
    }
    database.close();
  }
  const std::chrono::duration<double> duration = std::chrono::steady_clock::now() - start;
  {
    const std::lock_guard<std::mutex> guard(mutex_);
    reads_ += 1;
    seconds_ += duration.count();
  }
  waiting.job.finish(failure ? std::optional(sentenceFor(settings_, *failure)) : std::nullopt);
}

}  // namespace runelgw
