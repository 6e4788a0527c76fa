// SPDX-License-Identifier: Apache-2.0
#include "gateway/store/sql_store.h"

#include <mutex>
#include <thread>
#include <utility>

#include <fcntl.h>

#include "base/durable_rename.h"
#include "gateway/store/backup.h"
#include "gateway/store/connect.h"
#include "gateway/store/reader_pool.h"
#include "gateway/store/schema.h"
#include "gateway/store/tables.h"
#include "gateway/store/writer.h"

namespace runelgw {

namespace {

runel::Error asError(const std::string& sentence) {
  return {runel::Kind::local, runel::Cause::other, sentence};
}

// After a power cut a new file has its name.
void syncDirectoryOf(const std::string& path) {
  const zell::UniqueFd fd(::open(directoryOf(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (fd.valid()) {
    (void)zell::syncDirectory(fd.get());
  }
}

// Opens the file or server and brings its schema up to date.
Sentence prepare(const StoreSettings& settings, Database& database) {
  if (!isServer(settings)) {
    if (Sentence error = createFile(settings)) {
      return error;
    }
  }
  if (Sentence error = connectWriter(settings, database)) {
    return error;
  }
  if (!isServer(settings)) {
    if (Database::Failure failure = checkPages(database)) {
      return sentenceFor(settings, *failure);
    }
    syncDirectoryOf(settings.database);
  }
  const auto probe = settings.probe;
  Sentence error = migrate(database, migrations(), [&] {
    if (probe) {
      probe("migrating");
    }
  });
  if (error) {
    return nameOf(settings) + ": " + *error;
  }
  return {};
}

// Reads everything, and writes: a database that cannot be written is refused now.
Database::Failure load(Database& database, Snapshot& snapshot, Counters& counters) {
  Database::Failure failure = loadSnapshot(database, snapshot);
  failure = failure ? failure : loadCounters(database, counters);
  failure = failure ? failure : database.begin();
  failure = failure ? failure : saveCounters(database, counters);
  failure = failure ? failure : database.commit();
  if (failure) {
    database.rollback();
  }
  snapshot.nextDevice = counters[Counter::devices];
  snapshot.nextToken = counters[Counter::tokens];
  snapshot.nextOperation = counters[Counter::operations];
  return failure;
}

}  // namespace

struct SqlStore::Parts {
  Parts(const StoreSettings& settings, const Post& post)
      : writer(settings, post), readers(settings) {}

  zell::UniqueFd lock;  // released last
  Writer writer;
  ReaderPool readers;

  std::thread copier;
  std::mutex mutex;  // guards what follows
  bool isOpen = false;
  bool copying = false;
  Database* copied = nullptr;  // while its statement may be interrupted
};

SqlStore::SqlStore(StoreSettings settings, Post post)
    : settings_(resolvedSettings(std::move(settings))),
      post_(std::move(post)),
      parts_(std::make_unique<Parts>(settings_, post_)) {}

SqlStore::~SqlStore() {
  close();
}

runel::Result<Snapshot> SqlStore::open() {
  {
    const std::lock_guard<std::mutex> guard(parts_->mutex);
    if (parts_->isOpen) {
      return asError(nameOf(settings_) + " is open already");
    }
  }
  zell::UniqueFd lock;
  if (!isServer(settings_)) {
    if (Sentence error = lockFile(settings_.database, lock)) {
      return asError(*error);
    }
  }
  auto database = std::make_unique<Database>();
  if (Sentence error = prepare(settings_, *database)) {
    return asError(*error);
  }
  Snapshot snapshot;
  Counters counters;
  if (Database::Failure failure = load(*database, snapshot, counters)) {
    return asError(sentenceFor(settings_, *failure));
  }
  parts_->lock = std::move(lock);
  parts_->writer.start(std::move(database), counters);
  parts_->readers.start();
  const std::lock_guard<std::mutex> guard(parts_->mutex);
  parts_->isOpen = true;
  return snapshot;
}

void SqlStore::close() {
  {
    const std::lock_guard<std::mutex> guard(parts_->mutex);
    if (!parts_->isOpen) {
      return;
    }
    parts_->isOpen = false;
    if (parts_->copied != nullptr) {
      parts_->copied->interrupt();
    }
  }
  parts_->readers.stop();
  parts_->writer.stop();
  if (parts_->copier.joinable()) {
    parts_->copier.join();
  }
  parts_->lock.reset();
}

void SqlStore::write(std::vector<Change> changes, Done done) {
  parts_->writer.write(std::move(changes), std::move(done));
}

void SqlStore::removeOlder(Retention retention, Done done) {
  parts_->writer.removeOlder(retention, std::move(done));
}

template <typename Query, typename Record>
void SqlStore::read(Query query, Got<Page<Record>> got) {
  auto page = std::make_shared<Page<Record>>();
  parts_->readers.add({[query = std::move(query), page](Database& database) {
                         *page = {};
                         return readPage(database, query, *page);
                       },
                       [this, page, got = std::move(got)](std::optional<std::string> error) {
                         post_([page, got, error = std::move(error)] {
                           got(error ? runel::Result<Page<Record>>(asError(*error))
                                     : runel::Result<Page<Record>>(std::move(*page)));
                         });
                       }});
}

void SqlStore::readAudit(AuditQuery query, Got<Page<AuditRecord>> got) {
  read(std::move(query), std::move(got));
}

void SqlStore::readHistory(HistoryQuery query, Got<Page<HistoryRecord>> got) {
  read(std::move(query), std::move(got));
}

void SqlStore::readClauses(ClauseQuery query, Got<Page<ClauseRecord>> got) {
  read(query, std::move(got));
}

void SqlStore::readOperations(OperationQuery query, Got<Page<OperationRecord>> got) {
  read(std::move(query), std::move(got));
}

void SqlStore::readResults(ResultQuery query, Got<Page<OperationResultRecord>> got) {
  read(std::move(query), std::move(got));
}

void SqlStore::backup(std::string path, Done done) {
  Parts& parts = *parts_;
  std::string error;
  {
    const std::lock_guard<std::mutex> guard(parts.mutex);
    if (isServer(settings_)) {
      error = serverBackupHint("pg_dump");
    } else if (!parts.isOpen) {
      error = nameOf(settings_) + " is closed";
    } else if (parts.copying) {
      error = "another backup is being written; try again later";
    }
    parts.copying = parts.copying || error.empty();
  }
  if (!error.empty()) {
    post_([done = std::move(done), error] { done(error); });
    return;
  }
  if (parts.copier.joinable()) {
    parts.copier.join();  // it has ended its work
  }
  parts.copier = std::thread([this, &parts, path = std::move(path), done = std::move(done)] {
    Database database;
    Sentence result;
    if (Database::Failure failure = database.openFile(settings_.database, settings_.lockTimeout)) {
      result = sentenceFor(settings_, *failure);
    } else {
      bool isOpen = false;
      {
        const std::lock_guard<std::mutex> guard(parts.mutex);
        parts.copied = &database;
        isOpen = parts.isOpen;
      }
      result = isOpen ? writeBackup(database, path) : Sentence(nameOf(settings_) + " is closed");
    }
    {
      const std::lock_guard<std::mutex> guard(parts.mutex);
      parts.copied = nullptr;
      parts.copying = false;
    }
    post_([done, result] { done(result); });
  });
}

StoreState SqlStore::state() const {
  StoreState state;
  parts_->writer.describe(state);
  parts_->readers.describe(state);
  return state;
}

}  // namespace runelgw
