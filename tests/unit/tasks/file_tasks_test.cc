// SPDX-License-Identifier: Apache-2.0
#include <cerrno>
#include <cstdint>
#include <limits>
#include <string>
#include <utility>

#include <sys/stat.h>

#include "protocol/protocol.h"
#include "unit/tasks/task_case.h"

namespace zell::test {
namespace {

using ::testing::ElementsAre;

// The record of a failed stat.
const std::string kZeroStat =
    "dev=0 ino=0 mode=0000000 nlink=0 uid=0 gid=0 rdev=0 size=0 blksize=0 blocks=0 "
    "atime=0.000000000 mtime=0.000000000 ctime=0.000000000\n";

class FileTasksTest : public TaskCase {};

TEST_F(FileTasksTest, FileExistsAnswersInTheStatusOnly) {
  device.files["/file"] = "";
  EXPECT_EQ(run({"fileexists", "/file"}), "SlaveTask 0 0 0: 0 0 0 0 0");
  EXPECT_EQ(run({"fileexists", "/none"}), "SlaveTask 0 0 0: 1 0 1 2 0");
}

TEST_F(FileTasksTest, PathsArePassedUnchanged) {
  const std::string odd(" ../a\0b\n~$HOME/\xff ", 17);
  (void)run({"unlink", odd});
  EXPECT_THAT(asked(), ElementsAre("unlink " + odd));
}

TEST_F(FileTasksTest, EmptyPathIsPassed) {
  EXPECT_EQ(run({"fileexists", ""}), replyRecord("", "1 0 1 2 0"));
  EXPECT_THAT(asked(), ElementsAre("fileExists "));
}

struct Mode {
  std::string text;
  std::string read;
};

class AccessModeTest : public TaskCase, public ::testing::WithParamInterface<Mode> {};

TEST_P(AccessModeTest, IsReadAsAnUnsignedDecimalNumber) {
  device.files["/a"] = "";
  EXPECT_EQ(run({"access", "/a", GetParam().text}), replyRecord(""));
  EXPECT_THAT(asked(), ElementsAre("access /a " + GetParam().read));
}

INSTANTIATE_TEST_SUITE_P(Modes, AccessModeTest,
                         ::testing::Values(Mode{"4", "4"}, Mode{"0", "0"}, Mode{"7", "7"},
                                           Mode{" 4", "4"}, Mode{"\t\n 6", "6"}, Mode{"4x", "4"},
                                           Mode{"4 2", "4"}, Mode{"x4", "0"}, Mode{"", "0"},
                                           Mode{" ", "0"}, Mode{"0x4", "0"}, Mode{"010", "10"},
                                           Mode{"+4", "4"}, Mode{"-0", "0"}, Mode{"- 4", "0"},
                                           Mode{"+-4", "0"},
                                           // A minus sign: the number is subtracted from 2 to the
                                           // power of 32.
                                           Mode{"-1", "4294967295"}, Mode{"-4", "4294967292"},
                                           Mode{"4294967295", "4294967295"},
                                           // Out of range: the maximum,
                                           // which access(2) refuses.
                                           Mode{"4294967296", "4294967295"},
                                           Mode{"99999999999999999999999999", "4294967295"}));

TEST_F(FileTasksTest, AccessFailureIsInTheStatus) {
  device.failures["access"] = EACCES;
  EXPECT_EQ(run({"access", "/a", "4"}), replyRecord("", "1 0 1 13 0"));
}

TEST_F(FileTasksTest, AppendTwiceKeepsBoth) {
  EXPECT_EQ(run({"append", "/log", "a"}), replyRecord(""));
  EXPECT_EQ(run({"append", "/log", "b"}), replyRecord(""));
  EXPECT_EQ(device.files["/log"], "ab");
}

TEST_F(FileTasksTest, WriteAndAppendPassAllBytes) {
  const std::string bytes("\0\x01\x02\r\n%s\xff", 8);
  EXPECT_EQ(run({"write", "/w", bytes}), replyRecord(""));
  EXPECT_EQ(run({"append", "/a", bytes}), replyRecord(""));
  EXPECT_EQ(device.files["/w"], bytes);
  EXPECT_EQ(device.files["/a"], bytes);
}

TEST_F(FileTasksTest, WriteOfNothingEmptiesTheFile) {
  device.files["/w"] = "old";
  EXPECT_EQ(run({"write", "/w", ""}), replyRecord(""));
  EXPECT_EQ(device.files["/w"], "");
}

TEST_F(FileTasksTest, WriteFailureIsInTheStatus) {
  device.failures["writeFile"] = ENOSPC;
  EXPECT_EQ(run({"write", "/w", "data"}), replyRecord("", "1 0 1 28 0"));
}

TEST_F(FileTasksTest, ReadReturnsTheFileUnchanged) {
  device.files["/f"] = std::string("line\n\0\xff", 7);
  EXPECT_EQ(run({"read", "/f"}), replyRecord(std::string("line\n\0\xff", 7)));
}

TEST_F(FileTasksTest, ReadOfAnEmptyFileIsASuccessWithoutText) {
  device.files["/f"] = "";
  EXPECT_EQ(run({"read", "/f"}), "SlaveTask 0 0 0: 0 0 0 0 0");
}

TEST_F(FileTasksTest, ReadFailureHasNoText) {
  EXPECT_EQ(run({"read", "/none"}), replyRecord("", "1 0 1 2 0"));
}

TEST_F(FileTasksTest, ReadAboveTheLimitOfAReplyIsAFailureWithoutText) {
  device.files["/big"] = std::string(kMaxReplyText + 1, 'x');
  EXPECT_EQ(run({"read", "/big"}), replyRecord("", "1 0 1 27 0"));
}

TEST_F(FileTasksTest, StatAndLstatPrintTheRecord) {
  struct stat st {};
  st.st_dev = 1;
  st.st_ino = 2;
  st.st_mode = S_IFREG | 04755;
  st.st_nlink = 3;
  st.st_uid = 4;
  st.st_gid = 5;
  st.st_rdev = 6;
  st.st_size = 5000000000;
  st.st_blksize = 4096;
  st.st_blocks = 8;
  st.st_atim = {9, 1};
  st.st_mtim = {10, 20};
  st.st_ctim = {11, 999999999};
  device.stats["/f"] = st;
  const std::string text =
      "dev=1 ino=2 mode=0104755 nlink=3 uid=4 gid=5 rdev=6 size=5000000000 blksize=4096 blocks=8 "
      "atime=9.000000001 mtime=10.000000020 ctime=11.999999999\n";
  EXPECT_EQ(run({"stat", "/f"}), replyRecord(text));
  EXPECT_EQ(run({"lstat", "/f"}), replyRecord(text));
  EXPECT_THAT(asked(), ElementsAre("stat /f", "lstat /f"));
}

TEST_F(FileTasksTest, StatAndLstatPrintZerosAfterAFailureAndNotTheRecordBefore) {
  device.files["/f"] = "content";
  (void)run({"stat", "/f"});
  EXPECT_EQ(run({"stat", "/none"}), replyRecord(kZeroStat, "1 0 1 2 0"));
  (void)run({"lstat", "/f"});
  EXPECT_EQ(run({"lstat", "/none"}), replyRecord(kZeroStat, "1 0 1 2 0"));
}

TEST_F(FileTasksTest, FreeBlocksIsADecimalNumberOf64Bits) {
  for (const auto& [blocks, text] :
       {std::pair<std::uint64_t, const char*>{0, "0"},
        {4294967296, "4294967296"},
        {std::numeric_limits<std::uint64_t>::max(), "18446744073709551615"}}) {
    device.freeBlocks = blocks;
    EXPECT_EQ(run({"freeblocks", "/"}), replyRecord(text));
  }
}

TEST_F(FileTasksTest, FreeBlocksIsZeroAfterAFailure) {
  device.failures["freeBlocks"] = ENOENT;
  EXPECT_EQ(run({"freeblocks", "/none"}), replyRecord("0", "1 0 1 2 0"));
}

TEST_F(FileTasksTest, ReadDirPrintsTheNamesUnderAFixedLabel) {
  device.directories["/d"] = {"b", "a\nb", "a"};
  EXPECT_EQ(run({"readdir", "/d"}), replyRecord("StringVec 3\n1:a\n3:a\nb\n1:b\n"));
}

TEST_F(FileTasksTest, ReadDirOfAnEmptyDirectoryPrintsAnEmptyList) {
  device.directories["/d"] = {};
  EXPECT_EQ(run({"readdir", "/d"}), replyRecord("StringVec 0\n"));
}

TEST_F(FileTasksTest, ReadDirFailurePrintsAnEmptyList) {
  EXPECT_EQ(run({"readdir", "/none"}), replyRecord("StringVec 0\n", "1 0 1 2 0"));
}

TEST_F(FileTasksTest, RealPathAnswersThePath) {
  device.realPaths["/a/../b"] = "/b";
  EXPECT_EQ(run({"realpath", "/a/../b"}), replyRecord("/b"));
  EXPECT_EQ(run({"realpath", "/none"}), replyRecord("", "1 0 1 2 0"));
}

TEST_F(FileTasksTest, RenamePassesBothPathsInTheirOrder) {
  device.files["/old"] = "content";
  EXPECT_EQ(run({"rename", "/old", "/new"}), replyRecord(""));
  EXPECT_EQ(device.files.count("/old"), 0U);
  EXPECT_EQ(device.files["/new"], "content");
}

TEST_F(FileTasksTest, UnlinkAndChmodxAnswerTheStatusOnly) {
  device.files["/f"] = "content";
  EXPECT_EQ(run({"chmodx", "/f"}), replyRecord(""));
  EXPECT_EQ(run({"unlink", "/f"}), replyRecord(""));
  EXPECT_EQ(run({"chmodx", "/f"}), replyRecord("", "1 0 1 2 0"));
  EXPECT_EQ(run({"unlink", "/f"}), replyRecord("", "1 0 1 2 0"));
}

TEST_F(FileTasksTest, WalkTreePrintsTheTree) {
  device.directories["/d"] = {};
  device.tree = "d0755 0 0 0 1 .\n";
  EXPECT_EQ(run({"walktree", "/d"}), replyRecord("d0755 0 0 0 1 .\n"));
}

TEST_F(FileTasksTest, WalkTreeWithoutAWalkerHasNoText) {
  device.tree = "of another path\n";
  EXPECT_EQ(run({"walktree", "/none"}), replyRecord("", "1 0 1 2 0"));
}

TEST_F(FileTasksTest, WalkTreeFailureCarriesThePartialTree) {
  device.directories["/d"] = {};
  device.tree = "d0755 0 0 0 1 .\n";
  device.failures["walkTree"] = EACCES;
  EXPECT_EQ(run({"walktree", "/d"}), replyRecord("d0755 0 0 0 1 .\n", "1 0 1 13 0"));
}

}  // namespace
}  // namespace zell::test
