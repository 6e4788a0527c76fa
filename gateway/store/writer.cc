// SPDX-License-Identifier: Apache-2.0
#include "gateway/store/writer.h"

#include <algorithm>
#include <utility>

namespace runelgw {

namespace {

/// The most that one transaction has.
constexpr std::size_t kBatchChanges = 2000;
constexpr std::size_t kBatchBytes = 8U << 20U;
/// Between two attempts to reach the database.
constexpr std::chrono::milliseconds kFirstDelay(50);
constexpr std::chrono::milliseconds kLastDelay(2000);

std::int64_t wallMilliseconds() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

}  // namespace

Writer::Writer(const StoreSettings& settings, const Post& post)
    : settings_(settings), post_(post) {}

Writer::~Writer() {
  stop();
}

void Writer::start(std::unique_ptr<Database> database, const Counters& counters) {
  database_ = std::move(database);
  counters_ = counters;
  savedCounters_ = counters;
  {
    const std::lock_guard<std::mutex> guard(mutex_);
    running_ = true;
    state_.connected = true;
  }
  thread_ = std::thread([this] { run(); });
}

void Writer::stop() {
  {
    const std::lock_guard<std::mutex> guard(mutex_);
    if (!running_) {
      return;
    }
    running_ = false;
    stopping_ = true;
    stopBy_ = std::chrono::steady_clock::now() + settings_.closeTimeout;
  }
  changed_.notify_all();
  thread_.join();
  database_.reset();
}

void Writer::answer(Store::Done done, std::optional<std::string> error) const {
  if (done) {
    post_([done = std::move(done), error = std::move(error)] { done(error); });
  }
}

void Writer::write(std::vector<Change> changes, Store::Done done) {
  Group group;
  for (const Change& change : changes) {
    group.bytes += sizeOf(change);
  }
  group.changes = std::move(changes);
  group.done = std::move(done);
  {
    const std::lock_guard<std::mutex> guard(mutex_);
    const bool room = state_.queued + group.changes.size() <= settings_.queuedChanges &&
                      queuedBytes_ + group.bytes <= settings_.queuedBytes;
    if (running_ && room) {
      state_.queued += group.changes.size();
      queuedBytes_ += group.bytes;
      queue_.push_back(std::move(group));
      changed_.notify_all();
      return;
    }
    group.error = running_ ? nameOf(settings_) + ": " + std::to_string(state_.queued) +
                                 " changes wait to be written; the queue is full"
                           : nameOf(settings_) + " is closed";
    state_.refused += 1;
  }
  answer(std::move(group.done), std::move(group.error));
}

void Writer::removeOlder(const Retention& retention, Store::Done done) {
  {
    const std::lock_guard<std::mutex> guard(mutex_);
    if (running_) {
      removals_.push_back({retention, std::move(done), {}, 0, false});
      changed_.notify_all();
      return;
    }
  }
  answer(std::move(done), nameOf(settings_) + " is closed");
}

void Writer::describe(StoreState& state) const {
  const std::lock_guard<std::mutex> guard(mutex_);
  state = state_;
}

// Waits for work. False: the thread ends.
bool Writer::takeBatch(Batch& batch) {
  std::unique_lock<std::mutex> lock(mutex_);
  changed_.wait(lock, [this] { return stopping_ || !queue_.empty() || !removals_.empty(); });
  std::size_t changes = 0;
  std::size_t bytes = 0;
  while (!queue_.empty()) {
    const Group& first = queue_.front();
    if (!batch.empty() &&
        (changes + first.changes.size() > kBatchChanges || bytes + first.bytes > kBatchBytes)) {
      break;
    }
    changes += first.changes.size();
    bytes += first.bytes;
    batch.push_back(std::move(queue_.front()));
    queue_.pop_front();
  }
  return !stopping_ || !batch.empty();
}

void Writer::run() {
  while (true) {
    Batch batch;
    if (!takeBatch(batch)) {
      break;
    }
    if (!batch.empty()) {
      for (Group& group : batch) {
        for (Change& change : group.changes) {
          takeId(change, counters_);
        }
      }
      commitBatch(batch);
    }
    removeStep();
  }
  std::deque<Removing> left;
  {
    const std::lock_guard<std::mutex> guard(mutex_);
    left.swap(removals_);
  }
  for (Removing& removing : left) {
    answer(std::move(removing.done), nameOf(settings_) + " is closed");
  }
}

void Writer::commitBatch(Batch& batch) {
  std::chrono::milliseconds delay = kFirstDelay;
  const auto start = std::chrono::steady_clock::now();
  // An attempt that is repeated may have been committed: all changes have their ids and replace
  // what is there, so that the second time changes nothing.
  Database::Failure failure = commitTogether(batch);
  while (failure) {
    if (!failure->passing()) {
      failure = commitAlone(batch);
      continue;
    }
    if (!recover(*failure, delay)) {
      failUnfinished(batch);
      break;
    }
    failure = commitTogether(batch);
  }
  const std::chrono::duration<double> duration = std::chrono::steady_clock::now() - start;
  {
    const std::lock_guard<std::mutex> guard(mutex_);
    for (const Group& group : batch) {
      state_.queued -= group.changes.size();
      queuedBytes_ -= group.bytes;
      if (group.error) {
        state_.failed += 1;
        state_.lastError = *group.error;
      } else {
        state_.changes += group.changes.size();
      }
    }
    state_.commits += 1;
    state_.lastCommitSeconds = duration.count();
    state_.commitSeconds += duration.count();
  }
  report(batch);
}

void Writer::report(Batch& batch) {
  post_([done = std::make_shared<Batch>(std::move(batch))] {
    for (Group& group : *done) {
      if (group.done) {
        group.done(group.error);
      }
    }
  });
  probe("reported");
}

Database::Failure Writer::applyGroup(const Group& group) {
  for (const Change& change : group.changes) {
    if (Database::Failure failure = apply(*database_, change)) {
      return failure;
    }
    probe("changed");
  }
  return {};
}

// Saves the counters, if they moved, and commits.
Database::Failure Writer::finish() {
  const Counters counters = counters_;
  if (!std::equal(std::begin(counters.next), std::end(counters.next),
                  std::begin(savedCounters_.next))) {
    if (Database::Failure failure = saveCounters(*database_, counters)) {
      return failure;
    }
  }
  probe("committing");
  if (Database::Failure failure = database_->commit()) {
    return failure;
  }
  savedCounters_ = counters;
  probe("committed");
  const std::lock_guard<std::mutex> guard(mutex_);
  state_.lastCommit = wallMilliseconds();
  state_.connected = true;
  state_.lastError.clear();
  return {};
}

Database::Failure Writer::commitTogether(Batch& batch) {
  Database::Failure failure = database_->begin();
  probe("begun");
  for (auto group = batch.begin(); !failure && group != batch.end(); ++group) {
    failure = group->finished ? Database::Failure() : applyGroup(*group);
  }
  failure = failure ? failure : finish();
  if (failure) {
    database_->rollback();
    return failure;
  }
  for (Group& group : batch) {
    group.finished = true;
  }
  return {};
}

Database::Failure Writer::commitGroup(Group& group) {
  Database::Failure failure = database_->begin();
  failure = failure ? failure : applyGroup(group);
  failure = failure ? failure : finish();
  if (failure) {
    database_->rollback();
  }
  return failure;
}

// Each group in its own transaction. Returns a failure that may pass; any other one is the group's
// own.
Database::Failure Writer::commitAlone(Batch& batch) {
  for (Group& group : batch) {
    if (group.finished) {
      continue;
    }
    if (Database::Failure failure = commitGroup(group)) {
      if (failure->passing()) {
        return failure;
      }
      // The server may also have ended the connection with another reason.
      if (!database_->works()) {
        return DatabaseProblem{Trouble::lost, failure->text};
      }
      group.error = sentenceFor(settings_, *failure);
    }
    group.finished = true;
  }
  return {};
}

// The store closes before the database is back.
void Writer::failUnfinished(Batch& batch) const {
  const std::lock_guard<std::mutex> guard(mutex_);
  for (Group& group : batch) {
    group.error = group.finished ? group.error : std::optional(state_.lastError);
  }
}

void Writer::tell(const DatabaseProblem& problem) {
  tell(sentenceFor(settings_, problem), problem.trouble != Trouble::lost);
}

void Writer::tell(const std::string& sentence, bool connected) {
  const std::lock_guard<std::mutex> guard(mutex_);
  state_.lastError = sentence;
  state_.connected = connected;
}

// Waits, then connects again if the connection is lost. False: the store closes, and the time is
// over.
bool Writer::recover(const DatabaseProblem& problem, std::chrono::milliseconds& delay) {
  if (database_->isOpen()) {
    tell(problem);  // otherwise the reason is told why it cannot be opened
  }
  {
    std::unique_lock<std::mutex> lock(mutex_);
    const SteadyTime next = std::chrono::steady_clock::now() + delay;
    while (std::chrono::steady_clock::now() < next && !stopping_) {
      changed_.wait_until(lock, next);
    }
    if (stopping_) {
      if (std::chrono::steady_clock::now() >= stopBy_) {
        return false;
      }
      lock.unlock();
      std::this_thread::sleep_for(kFirstDelay);
    }
  }
  delay = std::min(delay * 2, kLastDelay);
  if (!database_->works()) {
    reconnect();
  }
  return true;
}

void Writer::reconnect() {
  if (Sentence error = connectWriter(settings_, *database_)) {
    tell(*error, false);
    return;
  }
  std::int64_t version = 0;
  Sentence error = readVersion(*database_, version);
  const auto known = static_cast<std::int64_t>(migrations().size());
  if (!error && version != known) {
    error = version > known ? newerVersion(version, migrations().size())
                            : "its schema has another version than before; restart the gateway";
  }
  if (error) {
    database_->close();
    tell(nameOf(settings_) + ": " + *error, false);
  }
}

// Executes one statement of the first removal.
void Writer::removeStep() {
  Removing* removing = nullptr;
  {
    const std::lock_guard<std::mutex> guard(mutex_);
    if (removals_.empty() || stopping_) {
      return;
    }
    removing = &removals_.front();  // only this thread removes it, and a deque does not move it
  }
  if (!removing->started) {
    removing->started = true;
    removing->removals = removalsOf(removing->retention, counters_);
  }
  std::optional<std::string> error;
  if (removing->next < removing->removals.size()) {
    const Removal& removal = removing->removals[removing->next];
    std::int64_t rows = 0;
    const Database::Failure failure = database_->execute(removal.sql, removal.values, &rows);
    probe("removed");
    if (failure && failure->passing()) {
      std::chrono::milliseconds delay = kFirstDelay;
      (void)recover(*failure, delay);  // the step is repeated, or the store closes
      return;
    }
    error = failure ? std::optional(sentenceFor(settings_, *failure)) : std::nullopt;
    removing->next += rows == 0 ? 1U : 0U;
  }
  if (error || removing->next == removing->removals.size()) {
    Store::Done done = std::move(removing->done);
    {
      const std::lock_guard<std::mutex> guard(mutex_);
      removals_.pop_front();
    }
    answer(std::move(done), std::move(error));
  }
}

void Writer::probe(const char* step) const {
  if (settings_.probe) {
    settings_.probe(step);
  }
}

}  // namespace runelgw
