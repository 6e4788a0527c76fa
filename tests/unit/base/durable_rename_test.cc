// SPDX-License-Identifier: Apache-2.0
#include "base/durable_rename.h"

#include <cerrno>
#include <string>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "support/spied_calls.h"
#include "support/temp_dir.h"

namespace zell {
namespace {

using test::SpiedCalls;
using test::TempDir;
using ::testing::ElementsAre;

class DurableRenameTest : public ::testing::Test {
 protected:
  RenameResult rename() { return renameDurably(file_, directory_.get(), "new", "old"); }
  bool exists(const char* name) { return faccessat(directory_.get(), name, F_OK, 0) == 0; }

  TempDir dir_;
  UniqueFd file_{open(dir_.write("new", "content").c_str(), O_WRONLY | O_CLOEXEC)};
  UniqueFd directory_{open(dir_.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)};
  SpiedCalls calls_;
};

TEST_F(DurableRenameTest, SyncsTheContentBeforeTheRenameAndTheDirectoryAfterIt) {
  const RenameResult result = rename();
  EXPECT_EQ(result.step, RenameStep::done);
  EXPECT_EQ(result.error, 0);
  EXPECT_TRUE(result.renamed());
  EXPECT_THAT(calls_.calls(), ElementsAre("fsync file", "renameat", "fsync directory"));
  EXPECT_FALSE(file_.valid());
  EXPECT_TRUE(exists("old") && !exists("new"));
}

TEST_F(DurableRenameTest, SyncsOnlyTheDirectoryForALink) {
  file_.reset();
  EXPECT_EQ(rename().step, RenameStep::done);
  EXPECT_THAT(calls_.calls(), ElementsAre("renameat", "fsync directory"));
}

TEST_F(DurableRenameTest, LeavesAFileThatCannotBeSyncedOpenUnderItsOldName) {
  calls_.fail("fsync file", EIO);
  const RenameResult result = rename();
  EXPECT_EQ(result.step, RenameStep::syncFile);
  EXPECT_EQ(result.error, EIO);
  EXPECT_FALSE(result.renamed());
  EXPECT_THAT(calls_.calls(), ElementsAre("fsync file"));
  EXPECT_TRUE(file_.valid() && exists("new") && !exists("old"));
}

TEST_F(DurableRenameTest, DoesNotRenameAFileThatCannotBeClosed) {
  calls_.fail("close", ENOSPC);
  const RenameResult result = rename();
  EXPECT_EQ(result.step, RenameStep::syncFile);
  EXPECT_EQ(result.error, ENOSPC);
  EXPECT_FALSE(file_.valid());
  EXPECT_TRUE(exists("new") && !exists("old"));
}

TEST_F(DurableRenameTest, IgnoresASignalDuringTheClose) {
  calls_.fail("close", EINTR);
  EXPECT_EQ(rename().step, RenameStep::done);
}

TEST_F(DurableRenameTest, ReportsAFailedRename) {
  calls_.fail("renameat", EBUSY);
  const RenameResult result = rename();
  EXPECT_EQ(result.step, RenameStep::rename);
  EXPECT_EQ(result.error, EBUSY);
  EXPECT_FALSE(result.renamed());
  EXPECT_THAT(calls_.calls(), ElementsAre("fsync file", "renameat"));
}

TEST_F(DurableRenameTest, ReportsADirectoryThatCannotBeSyncedAfterTheRename) {
  calls_.fail("fsync directory", EIO);
  const RenameResult result = rename();
  EXPECT_EQ(result.step, RenameStep::syncDirectory);
  EXPECT_EQ(result.error, EIO);
  EXPECT_TRUE(result.renamed() && exists("old"));
}

TEST_F(DurableRenameTest, AcceptsAFileSystemThatCannotSyncDirectories) {
  calls_.fail("fsync directory", EINVAL);
  EXPECT_EQ(rename().step, RenameStep::done);
}

}  // namespace
}  // namespace zell
