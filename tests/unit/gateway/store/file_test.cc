// SPDX-License-Identifier: Apache-2.0
// What happens with a file: damage, locks, full disks, backups.
#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <thread>

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "base/scope_guard.h"
#include "unit/gateway/store/store_fixture.h"

namespace runelgw::test {
namespace {

using zell::test::contentOf;

class StoreFileTest : public StoreTest {
 protected:
  std::optional<std::string> backup(const std::string& path) {
    std::optional<std::optional<std::string>> outcome;
    store_->backup(path, [&](const std::optional<std::string>& error) { outcome.emplace(error); });
    loop_.runUntil([&] { return outcome.has_value(); });
    return outcome.value_or("no completion");
  }

  std::string errorOfRestoring(const std::string& path) const {
    const runel::Result<void> restored = restoreDatabase(settings_, path);
    return restored.ok() ? "" : restored.error().text();
  }

  // A database with some of everything, closed.
  void fill();

  // Opens what is there: a failure is a sentence about the database. Reads everything.
  void openDamaged(const std::string& what);

  std::string path_ = directory_.file("fleet.db");
};

INSTANTIATE_TEST_SUITE_P(File, StoreFileTest, ::testing::Values(Kind::sqlite));

void StoreFileTest::fill() {
  open();
  std::vector<Change> changes;
  for (std::uint64_t i = 1; i <= 40; ++i) {
    changes.insert(
        changes.end(),
        {Save<DeviceRecord>{fullRecord<DeviceRecord>(i)}, Save<TagRecord>{{i, "site", "north", ""}},
         Append<HistoryRecord>{event(i, 1)}, Append<AuditRecord>{request("ci", 1)}});
  }
  ASSERT_EQ(write(std::move(changes)), std::nullopt);
  store_->close();
  store_.reset();
}

void StoreFileTest::openDamaged(const std::string& what) {
  SqlStore store(settings_, loop_.post());
  const runel::Result<Snapshot> opened = store.open();
  if (!opened.ok()) {
    EXPECT_NE(opened.error().text().find("database"), std::string::npos)
        << what << ": " << opened.error().text();
    return;
  }
  int answered = 0;
  store.readHistory({}, [&](const auto&) { ++answered; });
  store.readAudit({}, [&](const auto&) { ++answered; });
  store.write({Append<AuditRecord>{request("ci", 1)}}, [&](const auto&) { ++answered; });
  loop_.runUntil([&] { return answered == 3; });
  store.close();
}

TEST_P(StoreFileTest, RefusesAFileThatIsNoDatabase) {
  directory_.write("fleet.db", std::string(5000, 'x'));
  const std::string error = errorOfOpening(settings_);
  EXPECT_NE(error.find("the database " + path_ + ": "), std::string::npos) << error;
  EXPECT_NE(error.find("file is not a database"), std::string::npos) << error;
  EXPECT_NE(error.find("restore a backup"), std::string::npos) << error;
  EXPECT_EQ(contentOf(path_), std::string(5000, 'x'));  // and leaves it alone
}

TEST_P(StoreFileTest, RefusesPathsThatCannotBeOpened) {
  const std::pair<std::string, std::string> cases[] = {
      {directory_.file("absent/fleet.db"), "No such file or directory; create its directory"},
      {directory_.path(), "Is a directory"},
      {directory_.file("a\"b.db"), "quotation mark"},
      {"", "the path of the database is empty"},
      {"/dev/null", "is not a regular file"},
      {directory_.write("plain", "") + "/fleet.db", "Not a directory"},
  };
  for (const auto& [path, expected] : cases) {
    StoreSettings settings = settings_;
    settings.database = path;
    const std::string error = errorOfOpening(settings);
    EXPECT_NE(error.find(expected), std::string::npos) << error;
    EXPECT_NE(error.find("database"), std::string::npos) << error;
  }
}

TEST_P(StoreFileTest, RefusesAFileOfAnotherUser) {
  fill();
  ASSERT_EQ(::chmod(directory_.path().c_str(), 0755), 0);
  ASSERT_EQ(::seteuid(65534), 0);
  const std::string error = errorOfOpening(settings_);
  ASSERT_EQ(::seteuid(0), 0);
  EXPECT_NE(error.find("Permission denied; it must belong to the user of the gateway"),
            std::string::npos)
      << error;
}

TEST_P(StoreFileTest, ADirectoryThatCannotBeWrittenIsRefused) {
  fill();
  ASSERT_EQ(::unlink((path_ + ".lock").c_str()), 0);
  ASSERT_EQ(::chmod(path_.c_str(), 0666), 0);
  ASSERT_EQ(::chmod(directory_.path().c_str(), 0755), 0);
  ASSERT_EQ(::seteuid(65534), 0);
  const std::string error = errorOfOpening(settings_);
  ASSERT_EQ(::seteuid(0), 0);
  EXPECT_NE(error.find("Permission denied"), std::string::npos) << error;
}

TEST_P(StoreFileTest, OnlyItsOwnerReadsTheFiles) {
  const mode_t old = ::umask(0);
  open();
  ::umask(old);
  ASSERT_EQ(write({RemoveGroup{"a"}}), std::nullopt);
  for (const char* suffix : {"", "-wal", "-shm", ".lock"}) {
    struct stat status {};
    ASSERT_EQ(::stat((path_ + suffix).c_str(), &status), 0) << suffix;
    EXPECT_EQ(status.st_mode & 0777U, 0600U) << suffix;
  }
}

TEST_P(StoreFileTest, FilesThatTheAdministratorCreatesBelongToTheOwnerOfTheirDirectory) {
  ASSERT_EQ(::chown(directory_.path().c_str(), 65534, 65534), 0);
  open();
  ASSERT_EQ(write({RemoveGroup{"a"}}), std::nullopt);
  ASSERT_EQ(backup(directory_.file("copy.db")), std::nullopt);
  for (const char* suffix : {"", "-wal", "-shm", ".lock"}) {
    struct stat status {};
    ASSERT_EQ(::stat((path_ + suffix).c_str(), &status), 0) << suffix;
    EXPECT_EQ(status.st_uid, 65534U) << suffix;
    EXPECT_EQ(status.st_gid, 65534U) << suffix;
  }
  store_->close();
  store_.reset();
  // Not those that exist already: the owner may have put a link to any file there.
  ASSERT_EQ(::chown(path_.c_str(), 0, 0), 0);
  open();
  struct stat status {};
  ASSERT_EQ(::stat(path_.c_str(), &status), 0);
  EXPECT_EQ(status.st_uid, 0U);
  store_->close();
  ASSERT_EQ(::chown(path_.c_str(), 65534, 65534), 0);
  ASSERT_EQ(errorOfRestoring(directory_.file("copy.db")), "");
  ASSERT_EQ(::stat(path_.c_str(), &status), 0);
  EXPECT_EQ(status.st_uid, 65534U);
}

TEST_P(StoreFileTest, CommitsReachTheDisk) {
  fill();
  Database database;
  ASSERT_FALSE(openBeside(settings_, database));
  std::optional<std::int64_t> value;
  ASSERT_FALSE(database.number("PRAGMA synchronous", value));
  EXPECT_EQ(value, 2);  // FULL
  ASSERT_FALSE(database.number("PRAGMA foreign_keys", value));
  EXPECT_EQ(value, 1);
}

TEST_P(StoreFileTest, OpensOrRefusesADamagedFileWithASentence) {
  fill();
  const std::string whole = contentOf(path_);
  std::mt19937 random(7);
  const auto tryContent = [&](const std::string& content, const std::string& what) {
    for (const char* suffix : {"-wal", "-shm"}) {
      (void)::unlink((path_ + suffix).c_str());
    }
    directory_.write("fleet.db", content);
    openDamaged(what);
  };
  std::vector<std::size_t> offsets;
  for (std::size_t offset = 0; offset < 100; offset += 2) {
    offsets.push_back(offset);  // the header of the file
  }
  for (int i = 0; i < 120; ++i) {
    offsets.push_back(random() % whole.size());
  }
  for (const std::size_t offset : offsets) {
    std::string content = whole;
    content[offset] = static_cast<char>(content[offset] ^ static_cast<char>(1 + random() % 255));
    tryContent(content, "byte " + std::to_string(offset));
  }
  for (int i = 0; i < 40; ++i) {
    const std::size_t size = random() % whole.size();
    tryContent(whole.substr(0, size), "size " + std::to_string(size));
    std::string content = whole;
    const std::size_t start = random() % whole.size();
    const std::size_t length = std::min<std::size_t>(4096, whole.size() - start);
    content.replace(start, length, length, static_cast<char>(random()));
    tryContent(content, "block " + std::to_string(start));
  }
  tryContent(whole, "undamaged");
  EXPECT_EQ(open().devices.size(), 40U);
}

TEST_P(StoreFileTest, OpensOrRefusesADamagedLog) {
  // A process that was killed leaves its log.
  const pid_t child = ::fork();
  if (child == 0) {
    SqlStore store(settings_, [](const std::function<void()>& call) { call(); });
    if (store.open().ok()) {
      for (int i = 1; i <= 5; ++i) {
        store.write({Append<HistoryRecord>{event(1, i)}}, [i](const auto&) {
          if (i == 5) {
            ::kill(::getpid(), SIGKILL);
          }
        });
      }
      ::pause();
    }
    ::_exit(1);
  }
  int status = 0;
  ::waitpid(child, &status, 0);
  ASSERT_TRUE(WIFSIGNALED(status));
  const std::string file = contentOf(path_);
  const std::string log = contentOf(path_ + "-wal");
  ASSERT_FALSE(log.empty());
  std::mt19937 random(8);
  for (int i = 0; i < 60; ++i) {
    std::string damaged = log;
    if (i % 3 == 0) {
      damaged.resize(random() % log.size());
    } else {
      damaged[random() % log.size()] ^= static_cast<char>(1 + random() % 255);
    }
    directory_.write("fleet.db", file);
    directory_.write("fleet.db-wal", damaged);
    (void)::unlink((path_ + "-shm").c_str());
    openDamaged("log " + std::to_string(i));
  }
}

TEST_P(StoreFileTest, RefusesAFileThatAnotherProgramHasLocked) {
  fill();
  settings_.lockTimeout = std::chrono::milliseconds(100);
  Database other;
  ASSERT_FALSE(openBeside(settings_, other));
  for (const char* lock : {"BEGIN IMMEDIATE", "BEGIN EXCLUSIVE"}) {
    ASSERT_FALSE(other.executeOnce(lock));
    const std::string error = errorOfOpening(settings_);
    EXPECT_NE(error.find("database is locked"), std::string::npos) << error;
    EXPECT_NE(error.find("end the program that has it locked"), std::string::npos) << error;
    ASSERT_FALSE(other.executeOnce("ROLLBACK"));
  }
  EXPECT_EQ(open().devices.size(), 40U);
}

TEST_P(StoreFileTest, ChangesWaitForTheLockOfAnotherProgram) {
  settings_.lockTimeout = std::chrono::milliseconds(20);
  open();
  Database other;
  ASSERT_FALSE(openBeside(settings_, other));
  ASSERT_FALSE(other.executeOnce("BEGIN IMMEDIATE"));
  bool finished = false;
  store_->write({Save<GroupRecord>{{"g", ""}}}, [&](const auto& error) {
    EXPECT_EQ(error, std::nullopt);
    finished = true;
  });
  loop_.runUntil([&] { return !store_->state().lastError.empty(); });
  EXPECT_FALSE(finished);
  EXPECT_EQ(store_->state().queued, 1U);
  EXPECT_NE(store_->state().lastError.find("locked"), std::string::npos);
  EXPECT_EQ(history({}).items.size(), 0U);  // reading continues
  ASSERT_FALSE(other.executeOnce("ROLLBACK"));
  loop_.runUntil([&] { return finished; });
  EXPECT_EQ(store_->state().lastError, "");
}

TEST_P(StoreFileTest, ALinkIsTheSameDatabase) {
  open();
  StoreSettings linked = settings_;
  linked.database = directory_.file("link.db");
  ASSERT_EQ(::symlink("fleet.db", linked.database.c_str()), 0);
  const std::string error = errorOfOpening(linked);
  EXPECT_NE(error.find("is in use by another gateway (process " + std::to_string(::getpid()) + ")"),
            std::string::npos)
      << error;
}

// A file system of two megabytes, which the test fills.
class SmallDisk {
 public:
  explicit SmallDisk(std::string path) : path_(std::move(path)) {
    ::mkdir(path_.c_str(), 0755);
    mounted_ = ::mount("tmpfs", path_.c_str(), "tmpfs", 0, "size=2m") == 0;
  }
  ~SmallDisk() { ::umount2(path_.c_str(), MNT_DETACH); }
  SmallDisk(const SmallDisk&) = delete;
  SmallDisk& operator=(const SmallDisk&) = delete;

  [[nodiscard]] bool mounted() const { return mounted_; }
  // Leaves no byte.
  void fill() const {
    std::ofstream file(path_ + "/filler", std::ios::app);
    const std::string piece(512, 'x');
    while (file << piece << std::flush) {
    }
  }
  void empty() const { ::unlink((path_ + "/filler").c_str()); }

 private:
  std::string path_;
  bool mounted_ = false;
};

TEST_P(StoreFileTest, AFullDiskFailsWritesUntilThereIsSpace) {
  const SmallDisk disk(directory_.file("disk"));
  ASSERT_TRUE(disk.mounted());
  settings_.database = directory_.file("disk/fleet.db");
  open();
  ASSERT_EQ(write({Save<GroupRecord>{{"before", ""}}}), std::nullopt);
  disk.fill();
  int failed = 0;
  int committed = 0;
  std::string error;
  for (int i = 0; i < 300; ++i) {
    const auto outcome = write({Append<AuditRecord>{request("ci", i, "first")},
                                Append<ClauseRecord>{clause(1, i, std::string(9000, 'c'))},
                                Append<AuditRecord>{request("ci", i, "second")}});
    failed += outcome ? 1 : 0;
    committed += outcome ? 0 : 1;
    error = outcome ? *outcome : error;
  }
  EXPECT_GT(failed, 0);
  EXPECT_NE(error.find("check the free space of the disk (df)"), std::string::npos) << error;
  EXPECT_EQ(store_->state().lastError, error);
  disk.empty();
  EXPECT_EQ(write({Save<GroupRecord>{{"after", ""}}}), std::nullopt);
  EXPECT_EQ(store_->state().lastError, "");
  AuditQuery query;
  query.page.limit = kMaxPage;
  EXPECT_EQ(audit(query).items.size(), static_cast<std::size_t>(2 * committed));
  EXPECT_EQ(reopen().groups.size(), 2U);
}

TEST_P(StoreFileTest, AFullDiskIsRefusedAtTheStart) {
  const SmallDisk disk(directory_.file("disk"));
  ASSERT_TRUE(disk.mounted());
  settings_.database = directory_.file("disk/fleet.db");
  open();
  store_->close();
  disk.fill();
  const std::string error = errorOfOpening(settings_);
  EXPECT_NE(error.find("(df)"), std::string::npos) << error;
  disk.empty();
  open();
  EXPECT_EQ(write({RemoveGroup{"a"}}), std::nullopt);
}

TEST_P(StoreFileTest, ALimitOfFileSizesFailsWritesOnly) {
  open();
  ASSERT_EQ(write({Save<GroupRecord>{{"before", ""}}}), std::nullopt);
  (void)::signal(SIGXFSZ, SIG_IGN);
  rlimit old{};
  ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &old), 0);
  const rlimit small{200000, old.rlim_max};
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &small), 0);
  std::string error;
  for (int i = 0; i < 60 && error.empty(); ++i) {
    error = write({Append<ClauseRecord>{clause(1, i, std::string(9000, 'c'))}}).value_or("");
  }
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &old), 0);
  EXPECT_NE(error.find("(df)"), std::string::npos) << error;
  EXPECT_EQ(write({Save<GroupRecord>{{"after", ""}}}), std::nullopt);
  EXPECT_EQ(reopen().groups.size(), 2U);
}

TEST_P(StoreFileTest, ABackupHasWholeGroupsOfTheTimeWhileWritesContinue) {
  open();
  std::uint64_t number = 0;
  std::uint64_t answered = 0;
  const auto add = [&] {
    number += 1;
    const std::string name = std::to_string(number);
    store_->write({Append<AuditRecord>{request(name, 1)}, Save<SettingRecord>{{"last", name}},
                   Append<HistoryRecord>{event(number, 1)}},
                  [&](const auto& error) {
                    EXPECT_EQ(error, std::nullopt);
                    ++answered;
                  });
  };
  for (int i = 0; i < 3000; ++i) {
    add();
  }
  loop_.runUntil([&] { return answered == number; });
  const std::string copy = directory_.file("copy.db");
  // On a busy machine a backup may end before the writer has its turn: then the next one is looked
  // at.
  std::uint64_t before = answered;
  for (int attempt = 0; attempt < 500 && answered == before; ++attempt) {
    loop_.runUntil([&] { return answered == number; });
    before = answered;
    std::optional<std::optional<std::string>> outcome;
    store_->backup(copy, [&](const auto& error) { outcome.emplace(error); });
    loop_.runUntil([&] {
      if (number < answered + 20) {
        add();
      }
      return outcome.has_value();
    });
    ASSERT_EQ(*outcome, std::nullopt);
  }
  EXPECT_GT(answered, before);  // commits during the backup
  loop_.runUntil([&] { return answered == number; });
  store_->close();
  struct stat status {};
  ASSERT_EQ(::stat(copy.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777U, 0600U);
  EXPECT_NE(::access((copy + ".partial").c_str(), F_OK), 0);

  settings_.database = copy;
  const Snapshot snapshot = open();
  ASSERT_EQ(snapshot.settings.size(), 1U);
  const std::uint64_t last = std::stoull(snapshot.settings[0].value);
  EXPECT_GE(last, before);
  ASSERT_FALSE(audit({}).items.empty());
  EXPECT_EQ(audit({}).items[0].who, std::to_string(last));
  EXPECT_EQ(history({}).items.at(0).device, last);
}

TEST_P(StoreFileTest, ABackupReplacesTheOneBeforeOnlyWhenItIsComplete) {
  open();
  const std::string copy = directory_.write("copy.db", "the one before");
  directory_.write("copy.db.partial", "of a killed process");
  EXPECT_EQ(backup(copy), std::nullopt);
  EXPECT_EQ(contentOf(copy).substr(0, 15), "SQLite format 3");

  const SmallDisk disk(directory_.file("disk"));
  ASSERT_TRUE(disk.mounted());
  const std::string other = directory_.write("disk/copy.db", "the one before");
  disk.fill();
  const auto error = backup(other);
  ASSERT_TRUE(error.has_value());
  EXPECT_NE(error->find("cannot write " + other), std::string::npos) << *error;
  EXPECT_EQ(contentOf(other), "the one before");
  EXPECT_NE(::access((other + ".partial").c_str(), F_OK), 0);
  EXPECT_NE(backup(directory_.file("absent/copy.db")).value_or("").find("No such file"),
            std::string::npos);
}

TEST_P(StoreFileTest, OneBackupAtATime) {
  open();
  std::vector<std::string> outcomes;
  const auto keep = [&](const std::optional<std::string>& error) {
    outcomes.push_back(error.value_or("done"));
  };
  store_->backup(directory_.file("a.db"), keep);
  store_->backup(directory_.file("b.db"), keep);
  loop_.runUntil([&] { return outcomes.size() == 2; });
  std::sort(outcomes.begin(), outcomes.end());
  EXPECT_EQ(outcomes[0], "another backup is being written; try again later");
  EXPECT_EQ(outcomes[1], "done");
  EXPECT_EQ(backup(directory_.file("b.db")), std::nullopt);
  store_->close();
  EXPECT_NE(backup(directory_.file("c.db")).value_or("").find("is closed"), std::string::npos);
}

TEST_P(StoreFileTest, RestoresABackup) {
  fill();
  open();
  const std::string copy = directory_.file("copy.db");
  ASSERT_EQ(backup(copy), std::nullopt);
  ASSERT_EQ(write({RemoveDevice{1}, Save<GroupRecord>{{"later", ""}}}), std::nullopt);

  const std::string error = errorOfRestoring(copy);
  EXPECT_NE(error.find("in use by another gateway"), std::string::npos) << error;
  store_->close();
  ASSERT_EQ(errorOfRestoring(copy), "");
  const Snapshot snapshot = open();
  EXPECT_EQ(snapshot.devices.size(), 40U);
  EXPECT_TRUE(snapshot.groups.empty());
  EXPECT_EQ(snapshot.nextDevice, 41U);
  EXPECT_EQ(contentOf(copy).substr(0, 15), "SQLite format 3");  // the backup remains
}

TEST_P(StoreFileTest, RestoresWhereNoDatabaseIs) {
  fill();
  const std::string copy = directory_.file("moved.db");
  ASSERT_EQ(::rename(path_.c_str(), copy.c_str()), 0);
  ASSERT_EQ(errorOfRestoring(copy), "");
  EXPECT_EQ(open().devices.size(), 40U);
}

TEST_P(StoreFileTest, RestoresOverADamagedDatabaseAndTheLogOfAKilledProcess) {
  fill();
  open();
  const std::string copy = directory_.file("copy.db");
  ASSERT_EQ(backup(copy), std::nullopt);
  // What a killed process leaves beside the file is not applied to the restored one.
  ASSERT_EQ(write({Save<GroupRecord>{{"in the log", ""}}}), std::nullopt);
  const std::string log = contentOf(path_ + "-wal");
  const std::string file = contentOf(path_);
  store_->close();
  for (const bool damaged : {false, true}) {
    directory_.write("fleet.db", damaged ? std::string(9000, 'x') : file);
    directory_.write("fleet.db-wal", log);
    ASSERT_EQ(errorOfRestoring(copy), "");
    const Snapshot snapshot = open();
    EXPECT_EQ(snapshot.devices.size(), 40U);
    EXPECT_TRUE(snapshot.groups.empty());
    store_->close();
  }
}

TEST_P(StoreFileTest, RefusesToRestoreWhatIsNoBackup) {
  fill();
  const std::string whole = contentOf(path_);
  std::string damaged = whole;
  std::fill(damaged.begin() + 4096, damaged.begin() + 12288, 'x');
  const std::pair<std::string, std::string> cases[] = {
      {directory_.file("absent"), "No such file or directory"},
      {directory_.write("text", std::string(4000, 'x')), "file is not a database"},
      {directory_.write("empty", ""), "is empty"},
      {directory_.write("damaged", damaged), "restore a backup"},
      {directory_.path(), "not a regular file"},
  };
  for (const auto& [path, expected] : cases) {
    const std::string error = errorOfRestoring(path);
    EXPECT_NE(error.find(expected), std::string::npos) << path << ": " << error;
    EXPECT_EQ(contentOf(path_), whole);  // unchanged
    EXPECT_NE(::access((path_ + ".partial").c_str(), F_OK), 0);
  }
  StoreSettings newer = settings_;
  newer.database = directory_.write("newer.db", whole);
  {
    Database database;
    ASSERT_FALSE(openBeside(newer, database));
    ASSERT_FALSE(database.executeOnce("UPDATE runelgw_schema SET version = 77"));
    std::optional<std::int64_t> busy;
    ASSERT_FALSE(database.number("PRAGMA wal_checkpoint(TRUNCATE)", busy));
  }
  EXPECT_NE(errorOfRestoring(newer.database).find("its schema has version 77"), std::string::npos);
  EXPECT_EQ(open().devices.size(), 40U);
}

}  // namespace
}  // namespace runelgw::test
