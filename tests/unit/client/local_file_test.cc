// SPDX-License-Identifier: Apache-2.0
// Files of this host: the order in which a target of a pull reaches the disk, what is left when a
// system call fails, and what is not taken for a part of it.
#include "client/transfer/local_file.h"

#include <cerrno>
#include <filesystem>
#include <string>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "client/io/spool.h"
#include "client/transfer/hidden_paths.h"
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
  LocalFileTest() { EXPECT_FALSE(top_.open(dir_.path())); }

  // Replaces the file "target". Returns the error number, 0 for success.
  int replace(bool resume = false) {
    LocalWriter writer;
    std::optional<Error> error = writer.begin(target_, resume);
    error = error ? error : writer.add("new");
    error = error ? error : writer.setAttributes(0640, Timestamp{1, 2});
    error = error ? error : writer.finish();
    return error ? error->number() : 0;
  }

  // The number of files in the directory.
  [[nodiscard]] std::ptrdiff_t count() const {
    return std::distance(std::filesystem::directory_iterator(dir_.path()), {});
  }

  TempDir dir_;
  std::string path_ = dir_.write("target", "old");
  std::string part_ = dir_.file(partPath("target"));
  LocalDirectory top_;
  LocalPath target_{&top_, "target", "text"};
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

TEST_F(LocalFileTest, AnyOtherFailureLeavesTheOldFileAndNothingElse) {
  for (const char* call : {"fstat", "write", "fchmod", "futimens"}) {
    calls_.fail(call, ENOSPC);
    EXPECT_EQ(replace(), ENOSPC) << call;
    EXPECT_EQ(contentOf(path_), "old") << call;
    EXPECT_EQ(count(), 1) << call;
  }
  calls_.failAlways("openat file", EMFILE);
  EXPECT_EQ(replace(), EMFILE);
  EXPECT_EQ(count(), 1);
}

TEST_F(LocalFileTest, AFailedCloseReplacesNothing) {
  LocalWriter writer;
  ASSERT_FALSE(writer.begin(target_, false));
  ASSERT_FALSE(writer.add("new"));
  calls_.fail("close", EIO);
  EXPECT_EQ(writer.finish()->number(), EIO);
  writer.discard();
  EXPECT_EQ(contentOf(path_), "old");
  EXPECT_EQ(count(), 1);
}

TEST_F(LocalFileTest, AnInterruptedWriteContinues) {
  calls_.fail("write", EINTR);
  EXPECT_EQ(replace(), 0);
  EXPECT_EQ(contentOf(path_), "new");
}

TEST_F(LocalFileTest, OnlyTheLastSyncReportsAnError) {
  LocalWriter writer;
  ASSERT_FALSE(writer.begin(target_, false));
  ASSERT_FALSE(writer.add("new"));
  calls_.fail("sync_file_range", EIO);
  writer.beginSync();
  EXPECT_FALSE(writer.setAttributes(0640, Timestamp{1, 2}));
  calls_.fail("fsync file", EIO);
  EXPECT_EQ(writer.finish()->number(), EIO);
  EXPECT_EQ(contentOf(path_), "old");
}

TEST_F(LocalFileTest, APartIsResumed) {
  dir_.write(partPath("target"), "part, ");
  EXPECT_EQ(replace(true), 0);
  EXPECT_EQ(contentOf(path_), "part, new");
}

TEST_F(LocalFileTest, APartIsEmptiedUnlessItIsResumed) {
  dir_.write(partPath("target"), "part, ");
  EXPECT_EQ(replace(), 0);
  EXPECT_EQ(contentOf(path_), "new");
  dir_.write(partPath("target"), "part, ");
  calls_.fail("ftruncate", EIO);
  EXPECT_EQ(replace(), EIO);
  EXPECT_EQ(count(), 1);
}

TEST_F(LocalFileTest, WhatIsNoPartIsReplaced) {
  const std::string other = dir_.write("other", "other");
  for (const bool resume : {false, true}) {
    ASSERT_EQ(symlink("other", part_.c_str()), 0);
    EXPECT_EQ(replace(resume), 0);
    ASSERT_EQ(link(other.c_str(), part_.c_str()), 0);
    EXPECT_EQ(replace(resume), 0);
    ASSERT_EQ(mkfifo(part_.c_str(), 0600), 0);
    EXPECT_EQ(replace(resume), 0);
    ASSERT_EQ(mkfifo(part_.c_str(), 0600), 0);
    const zell::UniqueFd reader(open(part_.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    EXPECT_EQ(replace(resume), 0);
  }
  EXPECT_EQ(contentOf(path_), "new");
  EXPECT_EQ(contentOf(other), "other");
}

TEST_F(LocalFileTest, APartOfAnotherUserIsReplaced) {
  dir_.write(partPath("target"), "part, ");
  ASSERT_EQ(chown(part_.c_str(), 12, 34), 0);
  EXPECT_EQ(replace(true), 0);
  EXPECT_EQ(contentOf(path_), "new");
}

TEST_F(LocalFileTest, ADirectoryInPlaceOfThePartIsAnError) {
  ASSERT_EQ(mkdir(part_.c_str(), 0700), 0);
  EXPECT_EQ(replace(true), EEXIST);
  EXPECT_EQ(contentOf(path_), "old");
}

TEST_F(LocalFileTest, AFileIsFinishedInTheDirectoryWhereItWasBegun) {
  std::filesystem::create_directories(dir_.file("d"));
  std::filesystem::create_directories(dir_.file("outside"));
  LocalWriter writer;
  ASSERT_FALSE(writer.begin({&top_, "d/f", "text"}, false));
  std::filesystem::rename(dir_.file("d"), dir_.file("moved"));
  std::filesystem::create_symlink("outside", dir_.file("d"));
  ASSERT_FALSE(writer.add("new"));
  EXPECT_FALSE(writer.finish());
  EXPECT_EQ(contentOf(dir_.file("moved/f")), "new");
  EXPECT_TRUE(std::filesystem::is_empty(dir_.file("outside")));
}

TEST_F(LocalFileTest, NothingIsWrittenThroughALinkOrToTheDirectoryItself) {
  std::filesystem::create_directories(dir_.file("outside"));
  std::filesystem::create_symlink("outside", dir_.file("out"));
  LocalWriter writer;
  EXPECT_EQ(writer.begin({&top_, "out/f", "text"}, false)->text(),
            "text: a symbolic link is in the path");
  EXPECT_EQ(makeLocalLink({&top_, "out/f", "text"}, "x")->number(), ELOOP);
  EXPECT_EQ(writer.begin({&top_, "..", "text"}, false)->number(), EINVAL);
  EXPECT_EQ(writer.begin({&top_, ".", "text"}, false)->number(), EISDIR);
  EXPECT_TRUE(std::filesystem::is_empty(dir_.file("outside")));
}

TEST_F(LocalFileTest, TheDirectoryOfALinkIsSyncedAfterItsRename) {
  EXPECT_FALSE(makeLocalLink(target_, "elsewhere"));
  EXPECT_THAT(calls_.calls(), ElementsAre("renameat", "fsync directory"));
  EXPECT_EQ(std::filesystem::read_symlink(path_), "elsewhere");
}

TEST_F(LocalFileTest, ALinkThatCannotBeCreatedOrRenamedLeavesNothing) {
  for (const char* call : {"symlinkat", "renameat"}) {
    calls_.fail(call, EBUSY);
    EXPECT_EQ(makeLocalLink(target_, "elsewhere")->number(), EBUSY);
    EXPECT_EQ(contentOf(path_), "old");
    EXPECT_EQ(count(), 1);
  }
}

TEST_F(LocalFileTest, OnlyRegularFilesAreRead) {
  ASSERT_EQ(mkfifo(dir_.file("fifo").c_str(), 0600), 0);
  std::filesystem::create_symlink("target", dir_.file("link"));
  std::string content;
  EXPECT_EQ(readWhole({&top_, "fifo", "fifo"}, 9, content)->cause(), Cause::changed);
  EXPECT_EQ(readWhole({&top_, ".", "."}, 9, content)->cause(), Cause::changed);
  EXPECT_EQ(readWhole({&top_, "link", "link"}, 9, content)->cause(), Cause::outside);
  EXPECT_EQ(readWhole(target_, 2, content)->cause(), Cause::changed) << "longer than the limit";
  EXPECT_FALSE(readWhole(target_, 9, content));
  EXPECT_EQ(content, "old");
}

TEST_F(LocalFileTest, AReaderReportsAFailedCall) {
  LocalReader reader;
  calls_.fail("fstat", EIO);
  EXPECT_EQ(reader.open(target_)->number(), EIO);
  ASSERT_FALSE(reader.open(target_));
  calls_.fail("fstat", EIO);
  EXPECT_EQ(reader.changed()->cause(), Cause::changed);
  std::string content;
  EXPECT_EQ(reader.read(0, 4, content)->cause(), Cause::changed) << "an early end";
  reader.close();
  EXPECT_EQ(reader.read(0, 3, content)->number(), EBADF);
}

TEST(SpoolFileTest, AnInterruptedWriteContinues) {
  SpiedCalls calls;
  Spool spool(0);
  calls.fail("pwrite", EINTR);
  EXPECT_EQ(spool.write("abc"), 0U);
  EXPECT_EQ(spool.error(), 0);
  char bytes[4] = {};
  EXPECT_TRUE(spool.read(0, bytes, 3));
  EXPECT_STREQ(bytes, "abc");
}

TEST(SpoolFileTest, AFileThatTakesNothingIsFull) {
  SpiedCalls calls;
  Spool spool(0);
  calls.fail("pwrite", SpiedCalls::kReturnsZero);
  EXPECT_FALSE(spool.write("abc"));
  EXPECT_EQ(spool.error(), ENOSPC);
}

}  // namespace
}  // namespace runel
