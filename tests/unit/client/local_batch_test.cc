// SPDX-License-Identifier: Apache-2.0
// Files of this host that are finished together: the order in which they reach the disk, and what
// is left when a system call fails.
#include "client/transfer/local_batch.h"

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <runel/transfer.h>

#include "client/transfer/hidden_paths.h"
#include "drivers.h"
#include "support/spied_calls.h"
#include "support/temp_dir.h"
#include "unit/client/prepared_device.h"

namespace runel {
namespace {

using ::testing::ElementsAre;
using zell::test::contentOf;
using zell::test::SpiedCalls;
using zell::test::TempDir;
using Strings = std::vector<std::string>;

class LocalBatchTest : public ::testing::Test {
 protected:
  LocalBatchTest() { EXPECT_FALSE(top_.open(dir_.path())); }

  // Writes the file @p name, with its name as content. Its result becomes one of `results_`.
  void write(const std::string& name) {
    batch_->write({&top_, name, name}, name, 0640, Timestamp{1, 2},
                  [this, name](const std::optional<Error>& error) {
                    results_.push_back(name + " " + std::to_string(error ? error->number() : 0));
                  });
  }
  // The same for a, b and c. Then finishes. Returns the error number.
  int writeAndFinish() {
    for (const char* name : {"a", "b", "c"}) {
      write(name);
    }
    const std::optional<Error> error = batch_->finish();
    return error ? error->number() : 0;
  }
  [[nodiscard]] std::ptrdiff_t calls(const std::string& name) const {
    return std::count(calls_.calls().begin(), calls_.calls().end(), name);
  }
  // The names in the directory, sorted.
  [[nodiscard]] Strings names() const {
    Strings found;
    for (const auto& entry : std::filesystem::directory_iterator(dir_.path())) {
      found.push_back(entry.path().filename().string());
    }
    std::sort(found.begin(), found.end());
    return found;
  }

  TempDir dir_;
  LocalDirectory top_;
  SpiedCalls calls_;
  std::optional<LocalBatch> batch_{std::in_place};
  Strings results_;
};

TEST_F(LocalBatchTest, TheFileSystemIsSyncedBeforeAndAfterTheRenames) {
  EXPECT_EQ(writeAndFinish(), 0);
  EXPECT_THAT(calls_.calls(), ElementsAre("write", "fchmod", "write", "fchmod", "write", "fchmod",
                                          "syncfs", "renameat", "renameat", "renameat", "syncfs"));
  EXPECT_THAT(names(), ElementsAre("a", "b", "c"));
  EXPECT_EQ(contentOf(dir_.file("b")), "b");
  EXPECT_THAT(results_, ElementsAre("a 0", "b 0", "c 0"));
  EXPECT_FALSE(batch_->finish());
  EXPECT_EQ(calls("syncfs"), 2) << "nothing is left to sync";
}

TEST_F(LocalBatchTest, FewFilesAreSyncedAlone) {
  write("a");
  EXPECT_FALSE(batch_->finish());
  EXPECT_THAT(calls_.calls(),
              ElementsAre("write", "fchmod", "fsync file", "renameat", "fsync directory"));
}

TEST_F(LocalBatchTest, AFileHasItsModeAndTime) {
  EXPECT_EQ(writeAndFinish(), 0);
  struct stat st {};
  ASSERT_EQ(stat(dir_.file("c").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode, 0100640U);
  EXPECT_EQ(st.st_mtim.tv_sec, 1);
  EXPECT_EQ(st.st_mtim.tv_nsec, 2);
}

TEST_F(LocalBatchTest, EachFileIsSyncedIfTheFileSystemCannotBe) {
  calls_.fail("syncfs", EIO);
  calls_.fail("fsync file", EIO, 1);
  EXPECT_EQ(writeAndFinish(), 0);
  EXPECT_EQ(calls("fsync file"), 3);
  EXPECT_EQ(calls("fsync directory"), 2);
  EXPECT_THAT(results_, ElementsAre("a 0", "b 5", "c 0"));
  EXPECT_THAT(names(), ElementsAre("a", "c"));
}

TEST_F(LocalBatchTest, AFileThatCouldNotBeWrittenReplacesNothing) {
  dir_.write("b", "old");
  for (const char* call : {"sync_file_range", "close", "renameat"}) {
    results_.clear();
    calls_.fail(call, EIO, 1);
    EXPECT_EQ(writeAndFinish(), 0);
    EXPECT_THAT(results_, ElementsAre("a 0", "b 5", "c 0")) << call;
    EXPECT_THAT(names(), ElementsAre("a", "b", "c")) << call;
    EXPECT_EQ(contentOf(dir_.file("b")), "old") << call;
  }
}

TEST_F(LocalBatchTest, AFileThatCannotBeWrittenFailsAtOnce) {
  for (const char* call : {"write", "fchmod", "futimens"}) {
    results_.clear();
    calls_.fail(call, ENOSPC, 1);
    EXPECT_EQ(writeAndFinish(), 0);
    EXPECT_THAT(results_, ElementsAre("b 28", "a 0", "c 0")) << call;
  }
}

TEST_F(LocalBatchTest, ADirectoryThatCannotBeSyncedIsAnError) {
  calls_.fail("syncfs", EIO, 1);
  EXPECT_EQ(writeAndFinish(), EIO);
  EXPECT_THAT(results_, ElementsAre("a 0", "b 0", "c 0"));
}

TEST_F(LocalBatchTest, AnEndLeavesNoUnfinishedFile) {
  write("a");
  write("b");
  EXPECT_EQ(names().size(), 2U);
  batch_.reset();
  EXPECT_TRUE(names().empty());
  EXPECT_TRUE(results_.empty());
}

TEST_F(LocalBatchTest, TheLastFileOfANameWins) {
  write("a");
  write("a");
  EXPECT_THAT(results_, ElementsAre("a 0"));
  EXPECT_FALSE(batch_->finish());
  EXPECT_THAT(results_, ElementsAre("a 0", "a 0"));
  EXPECT_THAT(names(), ElementsAre("a"));
}

TEST_F(LocalBatchTest, AFileWithTheHiddenNameOfAnotherIsNotMixedUpWithIt) {
  const std::string hidden = partPath("a");
  for (const Strings& order : {Strings{hidden, "a"}, Strings{"a", hidden}}) {
    write(order[0]);
    write(order[1]);
    EXPECT_FALSE(batch_->finish());
    EXPECT_EQ(contentOf(dir_.file("a")), "a");
    std::filesystem::remove(dir_.file(hidden));
  }
}

TEST_F(LocalBatchTest, WithoutFreeDescriptorsTheFilesSoFarAreFinished) {
  write("a");
  calls_.fail("openat file", EMFILE, 1);  // the first one looks for an earlier part
  write("b");
  EXPECT_THAT(results_, ElementsAre("a 0"));
  EXPECT_FALSE(batch_->finish());
  EXPECT_THAT(names(), ElementsAre("a", "b"));
}

TEST_F(LocalBatchTest, HoldsFewDescriptors) {
  rlimit limit{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
  const rlimit few{4 * 64, limit.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &few), 0);
  batch_.emplace();
  EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
  for (int number = 0; number < 9; ++number) {
    write("f" + std::to_string(number));
  }
  EXPECT_EQ(results_.size(), 8U);
  EXPECT_EQ(calls("syncfs"), 2);
}

TEST_F(LocalBatchTest, NothingIsWrittenThroughALink) {
  std::filesystem::create_directories(dir_.file("outside"));
  std::filesystem::create_symlink("outside", dir_.file("out"));
  write("out/f");
  write("../f");
  EXPECT_THAT(results_, ElementsAre("out/f 40", "../f 22"));
  EXPECT_TRUE(std::filesystem::is_empty(dir_.file("outside")));
}

TEST(PullTest, ManyFilesAreSyncedTogether) {
  const TempDir here;
  Loop loop;
  PreparedDevice device(loop);
  SpiedCalls calls;
  std::optional<TransferReport> report;
  Strings sources;
  for (int number = 0; number < 20; ++number) {
    sources.push_back("/f" + std::to_string(number));
  }
  device.succeed("stat", PreparedDevice::stat("0100640", 5));
  device.succeed("read", "hello");
  const auto transfer =
      AsyncTransfer::pull(device.client(), sources, here.path(), TransferOptions(),
                          [&](const TransferReport& done) { report = done; });
  ASSERT_TRUE(test::runUntil(loop, [&] { return report.has_value(); }));
  EXPECT_TRUE(report->ok());
  EXPECT_EQ(report->files(), 20U);
  const auto syncs = [&](const char* name) {
    return std::count(calls.calls().begin(), calls.calls().end(), name);
  };
  EXPECT_LE(syncs("fsync file") + syncs("fsync directory") + syncs("syncfs"), 20);
}

}  // namespace
}  // namespace runel
