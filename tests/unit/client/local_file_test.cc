// SPDX-License-Identifier: Apache-2.0
// The order in which a target of a pull reaches the disk.
#include "client/transfer/local_file.h"

#include <cerrno>
#include <filesystem>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/spied_calls.h"
#include "support/temp_dir.h"

namespace runel {
namespace {

using ::testing::ElementsAre;
using zell::test::contentOf;
using zell::test::SpiedCalls;
using zell::test::TempDir;

class LocalFileTest : public ::testing::Test {
 protected:
  // Replaces the file "target". Returns the error number, 0 for success.
  int replace() {
    LocalWriter writer;
    if (writer.begin(path_, false) || writer.add("new")) {
      return -1;
    }
    const auto error = writer.finish(0640, Timestamp{1, 2});
    return error ? error->number() : 0;
  }

  // The number of files in the directory.
  [[nodiscard]] std::ptrdiff_t count() const {
    return std::distance(std::filesystem::directory_iterator(dir_.path()), {});
  }

  TempDir dir_;
  std::string path_ = dir_.write("target", "old");
  SpiedCalls calls_;
};

TEST_F(LocalFileTest, AFileIsSyncedBeforeItsRenameAndItsDirectoryAfterIt) {
  EXPECT_EQ(replace(), 0);
  EXPECT_THAT(calls_.calls(),
              ElementsAre("write", "fchmod", "fsync file", "renameat", "fsync directory"));
  EXPECT_EQ(contentOf(path_), "new");
}

TEST_F(LocalFileTest, AFileThatCannotBeSyncedReplacesNothing) {
  calls_.fail("fsync file", EIO);
  EXPECT_EQ(replace(), EIO);
  EXPECT_EQ(contentOf(path_), "old");
  EXPECT_EQ(count(), 1);
}

TEST_F(LocalFileTest, AFileThatCannotBeRenamedLeavesNothing) {
  calls_.fail("renameat", EBUSY);
  EXPECT_EQ(replace(), EBUSY);
  EXPECT_EQ(contentOf(path_), "old");
  EXPECT_EQ(count(), 1);
}

TEST_F(LocalFileTest, ADirectoryThatCannotBeSyncedIsAnError) {
  calls_.fail("fsync directory", EIO);
  EXPECT_EQ(replace(), EIO);
  EXPECT_EQ(contentOf(path_), "new");
  EXPECT_EQ(count(), 1);
}

TEST_F(LocalFileTest, TheDirectoryOfALinkIsSyncedAfterItsRename) {
  EXPECT_FALSE(makeLocalLink(path_, "elsewhere"));
  EXPECT_THAT(calls_.calls(), ElementsAre("renameat", "fsync directory"));
  EXPECT_EQ(std::filesystem::read_symlink(path_), "elsewhere");
}

TEST_F(LocalFileTest, ALinkThatCannotBeRenamedLeavesNothing) {
  calls_.fail("renameat", EBUSY);
  EXPECT_EQ(makeLocalLink(path_, "elsewhere")->number(), EBUSY);
  EXPECT_EQ(contentOf(path_), "old");
  EXPECT_EQ(count(), 1);
}

}  // namespace
}  // namespace runel
