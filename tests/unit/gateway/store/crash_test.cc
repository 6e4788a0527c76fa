// SPDX-License-Identifier: Apache-2.0
// A process that is killed while it writes: what it was told to be committed is there, and nothing
// of half a group.
#include <array>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <random>
#include <string>
#include <thread>

#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "base/unique_fd.h"
#include "gateway/store/schema.h"
#include "unit/gateway/store/store_fixture.h"

namespace runelgw::test {
namespace {

class StoreCrashTest : public StoreTest {
 protected:
  // Runs @p work in a process and returns its wait status. It may report numbers, which this
  // process keeps in `reported_`. @p after: kill it that long after its first report; 0: it ends by
  // itself.
  int run(const std::function<void(int reports)>& work, std::chrono::microseconds after);

  // Checks the database after a crash: groups are complete, and they are the first ones.
  void expectWholeGroups();

  std::uint64_t reported_ = 0;  // the last group that a process was told to be committed
  std::uint64_t written_ = 0;   // the last group in the database
  std::uint64_t cursor_ = 0;    // the last checked record
};

INSTANTIATE_TEST_SUITE_P(Databases, StoreCrashTest, ::testing::Values(Kind::sqlite, Kind::postgres),
                         nameOfKind);

// Reads numbers until the writer is gone. Kills @p child at the time.
std::uint64_t lastReport(int reports, pid_t child, std::chrono::microseconds after) {
  std::uint64_t last = 0;
  std::uint64_t number = 0;
  while (::read(reports, &number, sizeof number) == static_cast<ssize_t>(sizeof number)) {
    if (last == 0 && after.count() > 0) {
      std::this_thread::sleep_for(after);
      ::kill(child, SIGKILL);
    }
    last = number;
  }
  return last;
}

int StoreCrashTest::run(const std::function<void(int reports)>& work,
                        std::chrono::microseconds after) {
  std::array<int, 2> ends{};
  EXPECT_EQ(::pipe(ends.data()), 0);
  const pid_t child = ::fork();
  if (child == 0) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    ::close(ends[0]);
    work(ends[1]);
    ::_exit(0);
  }
  const zell::UniqueFd reports(ends[0]);
  ::close(ends[1]);
  const std::uint64_t last = lastReport(reports.get(), child, after);
  reported_ = std::max(reported_, last);
  int status = 0;
  ::waitpid(child, &status, 0);
  return status;
}

// The changes of a group. Each has a part in four tables.
std::vector<Change> groupOf(std::uint64_t number) {
  const std::string name = std::to_string(number);
  const auto time = static_cast<std::int64_t>(number);
  return {Append<AuditRecord>{request(name, time, "first")}, Save<SettingRecord>{{"last", name}},
          Append<HistoryRecord>{event(number, time)}, Save<DeviceRecord>{device(number % 50 + 1)},
          Append<AuditRecord>{request(name, time, "second")}};
}

// Writes groups from @p first on, which are reported when they are committed. Ends after @p count.
void writeGroups(const StoreSettings& settings, std::uint64_t first, std::uint64_t count,
                 int reports) {
  SqlStore store(settings, [](const std::function<void()>& call) { call(); });
  if (!store.open().ok()) {
    ::_exit(3);
  }
  std::atomic<std::uint64_t> done{0};
  for (std::uint64_t i = 0; i < count; ++i) {
    store.write(groupOf(first + i), [&, number = first + i](const auto& error) {
      if (error || ::write(reports, &number, sizeof number) != ssize_t{sizeof number}) {
        ::_exit(4);
      }
      ++done;
    });
    while (i + 1 >= done + 200) {  // never so many that the queue is full
      std::this_thread::sleep_for(std::chrono::microseconds(50));
    }
  }
  store.close();
}

void StoreCrashTest::expectWholeGroups() {
  const Snapshot snapshot = open();
  std::map<std::uint64_t, int> parts;
  AuditQuery query;
  query.page.oldestFirst = true;
  query.page.limit = kMaxPage;
  query.page.cursor = cursor_;
  do {
    const Page<AuditRecord> page = audit(query);
    for (const AuditRecord& record : page.items) {
      parts[std::stoull(record.who)] += record.what == "first" ? 1 : 100;
      cursor_ = record.id;
    }
    query.page.cursor = page.next;
  } while (query.page.cursor != 0);
  for (const auto& [number, count] : parts) {
    ASSERT_EQ(count, 101) << "group " << number;  // both records, each once
    ASSERT_EQ(number, written_ + 1) << "a group is missing";
    written_ = number;
  }
  EXPECT_GE(written_, reported_) << "a committed group is missing";
  const Page<HistoryRecord> newest = history({});
  store_->close();
  if (written_ == 0) {
    EXPECT_TRUE(newest.items.empty() && snapshot.settings.empty() && snapshot.devices.empty());
    return;
  }
  ASSERT_FALSE(newest.items.empty());
  EXPECT_EQ(newest.items[0].device, written_);
  ASSERT_EQ(snapshot.settings.size(), 1U);
  EXPECT_EQ(snapshot.settings[0].value, std::to_string(written_));
  EXPECT_EQ(snapshot.devices.size(), std::min<std::size_t>(written_, 50));
}

TEST_P(StoreCrashTest, SurvivesAKillAtEachStepOfACommit) {
  open();
  store_->close();
  bool killed = true;
  int step = 0;
  for (; killed; ++step) {
    ASSERT_LT(step, 200);
    const int status = run(
        [&](int reports) {
          StoreSettings settings = settings_;
          int left = step;
          settings.probe = [&left](const char*) {
            if (left-- == 0) {
              ::kill(::getpid(), SIGKILL);
            }
          };
          writeGroups(settings, written_ + 1, 4, reports);
        },
        {});
    killed = WIFSIGNALED(status);
    EXPECT_TRUE(killed ? WTERMSIG(status) == SIGKILL : WEXITSTATUS(status) == 0) << status;
    expectWholeGroups();
    ASSERT_FALSE(HasFailure()) << "killed at step " << step;
  }
  EXPECT_GT(step, 20);  // four groups of five changes
}

TEST_P(StoreCrashTest, SurvivesAKillAtAnyTimeUnderLoad) {
  open();
  store_->close();
  std::mt19937 random(20261123);
  std::uint64_t kills = 0;
  constexpr int kRounds = 8;
  for (int round = 0; round < kRounds; ++round) {
    const std::chrono::microseconds after(1 + random() % 25000);
    const int status =
        run([&](int reports) { writeGroups(settings_, written_ + 1, 100000, reports); }, after);
    kills += WIFSIGNALED(status) ? 1 : 0;
    expectWholeGroups();
    ASSERT_FALSE(HasFailure()) << "round " << round;
  }
  EXPECT_EQ(kills, std::uint64_t{kRounds});
  EXPECT_GE(reported_, std::uint64_t{kRounds});  // at least one in each
}

TEST_P(StoreCrashTest, SurvivesAKillAtEachStepOfAMigration) {
  bool killed = true;
  int step = 0;
  for (; killed; ++step) {
    ASSERT_LT(step, 200);
    const int status = run(
        [&](int) {
          StoreSettings settings = settings_;
          int left = step;
          settings.probe = [&left](const char* name) {
            if (std::string(name) == "migrating" && left-- == 0) {
              ::kill(::getpid(), SIGKILL);
            }
          };
          SqlStore store(settings, [](const std::function<void()>& call) { call(); });
          ::_exit(store.open().ok() ? 0 : 3);
        },
        {});
    killed = WIFSIGNALED(status);
    EXPECT_TRUE(killed || WEXITSTATUS(status) == 0) << status;
    if (killed) {
      // Nothing of the version that was not reached.
      Database database;
      ASSERT_FALSE(openBeside(settings_, database));
      std::int64_t version = -1;
      EXPECT_EQ(readVersion(database, version), std::nullopt) << "killed at step " << step;
      EXPECT_EQ(version, 0);
    }
  }
  EXPECT_GT(step, static_cast<int>(migrations().at(0).size()));
  open();
  EXPECT_EQ(write(groupOf(1)), std::nullopt);
}

}  // namespace
}  // namespace runelgw::test
