// SPDX-License-Identifier: Apache-2.0
// File operations that are one system call.
#include <algorithm>
#include <cerrno>
#include <string>
#include <vector>

#include <sys/syscall.h>
#include <unistd.h>

#include "contract/linux/mount.h"
#include "contract/linux/proxy_test.h"
#include "contract/linux/refused_calls.h"

namespace zell::test {
namespace {

using Names = std::vector<std::string>;

class FilesTest : public ProxyTest {
 protected:
  std::string statusText() { return fields(proxy_); }
  const std::string zero_ = std::string("a\0b", 3);
};

TEST_F(FilesTest, StatFollowsALinkAndLstatDoesNot) {
  dir_.write("a", "12345");
  ASSERT_EQ(symlink("a", dir_.file("link").c_str()), 0);
  struct stat st {};
  EXPECT_TRUE(proxy_.stat(dir_.file("link"), st));
  EXPECT_TRUE(S_ISREG(st.st_mode));
  EXPECT_EQ(st.st_size, 5);
  EXPECT_TRUE(proxy_.lstat(dir_.file("link"), st));
  EXPECT_TRUE(S_ISLNK(st.st_mode));
}

TEST_F(FilesTest, ADanglingLinkDoesNotExist) {
  ASSERT_EQ(symlink("none", dir_.file("link").c_str()), 0);
  EXPECT_FALSE(proxy_.fileExists(dir_.file("link")));
  EXPECT_EQ(statusText(), failureWith(ENOENT));
  struct stat st {};
  EXPECT_TRUE(proxy_.lstat(dir_.file("link"), st));
}

TEST_F(FilesTest, AccessTestsTheRequestedMode) {
  const std::string path = dir_.write("a", "");
  chmod(path.c_str(), 0600);
  EXPECT_TRUE(proxy_.access(path, 0));
  EXPECT_TRUE(proxy_.access(path, 6));
  EXPECT_FALSE(proxy_.access(path, 1));
  EXPECT_EQ(statusText(), failureWith(EACCES));
  EXPECT_FALSE(proxy_.access(path, 8));
  EXPECT_EQ(statusText(), failureWith(EINVAL));
  EXPECT_FALSE(proxy_.access(path, 4294967295U));
  EXPECT_EQ(statusText(), failureWith(EINVAL));
}

TEST_F(FilesTest, ChmodxAddsExecutePermissionForAll) {
  const std::string path = dir_.write("a", "");
  chmod(path.c_str(), 04640);
  EXPECT_TRUE(proxy_.chmodx(path));
  EXPECT_EQ(statusOf(path).st_mode, S_IFREG | 04751U);
}

TEST_F(FilesTest, UnlinkRemovesALinkButNotADirectory) {
  dir_.write("a", "");
  ASSERT_EQ(symlink("a", dir_.file("link").c_str()), 0);
  EXPECT_TRUE(proxy_.unlink(dir_.file("link")));
  EXPECT_TRUE(proxy_.fileExists(dir_.file("a")));
  EXPECT_FALSE(proxy_.unlink(dir_.path()));
  EXPECT_EQ(statusText(), failureWith(EISDIR));
}

TEST_F(FilesTest, RenameReplaces) {
  dir_.write("a", "content");
  dir_.write("b", "old");
  EXPECT_TRUE(proxy_.rename(dir_.file("a"), dir_.file("b")));
  EXPECT_EQ(contentOf(dir_.file("b")), "content");
  EXPECT_FALSE(proxy_.fileExists(dir_.file("a")));
  EXPECT_FALSE(proxy_.rename(dir_.file("b"), dir_.path()));
  EXPECT_EQ(statusText(), failureWith(ENOTEMPTY));
}

TEST_F(FilesTest, RealPathResolvesLinksAndDots) {
  dir_.write("a", "");
  ASSERT_EQ(symlink("a", dir_.file("link").c_str()), 0);
  EXPECT_EQ(proxy_.realPath(dir_.path() + "/./../" + dir_.path().substr(dir_.path().rfind('/')) +
                            "/link"),
            proxy_.realPath(dir_.path()) + "/a");
  EXPECT_EQ(statusText(), kSuccess);
}

TEST_F(FilesTest, ReadDirSortsByByteValue) {
  for (const char* name : {"b", "\xff", "B", ".hidden", "a b", "a", "\xc3\xa4"}) {
    dir_.write(name, "");
  }
  Names names;
  EXPECT_TRUE(proxy_.readDir(dir_.path(), names));
  EXPECT_EQ(names, (Names{".hidden", "B", "a", "a b", "b", "\xc3\xa4", "\xff"}));
}

TEST_F(FilesTest, ReadDirListsManyEntries) {
  Names expected;
  for (int i = 0; i < 5000; ++i) {
    expected.push_back("entry " + std::to_string(i));
    dir_.write(expected.back(), "");
  }
  std::sort(expected.begin(), expected.end());
  Names names;
  EXPECT_TRUE(proxy_.readDir(dir_.path(), names));
  EXPECT_EQ(names, expected);
}

TEST_F(FilesTest, ReadDirListsAnEmptyDirectoryAndRefusesAFile) {
  Names names;
  EXPECT_TRUE(proxy_.readDir(dir_.path(), names));
  EXPECT_EQ(names, Names{});
  EXPECT_FALSE(proxy_.readDir(dir_.write("a", ""), names));
  EXPECT_EQ(statusText(), failureWith(ENOTDIR));
}

TEST_F(FilesTest, ReadDirFailsWhereTheDirectoryCannotBeRead) {
  dir_.write("a", "");
  EXPECT_EQ(inChild([&] {
              refuseCalls(SYS_getdents64, EIO);
              Names names;
              (void)proxy_.readDir(dir_.path(), names);
              return statusText() + ", " + std::to_string(names.size());
            }),
            failureWith(EIO) + ", 0");
}

TEST_F(FilesTest, FreeBlocksCountsTheBlocksForUnprivilegedUsers) {
  const Mount memory = Mount::memory(dir_.path(), "size=1m");
  std::uint64_t blocks = 0;
  EXPECT_TRUE(proxy_.freeBlocks(dir_.path(), blocks));
  EXPECT_EQ(blocks, 256U);
  dir_.write("a", std::string(40960, 'x'));
  EXPECT_TRUE(proxy_.freeBlocks(dir_.file("a"), blocks));
  EXPECT_EQ(blocks, 246U);
}

TEST_F(FilesTest, FreeBlocksHas64Bits) {
  const Mount memory = Mount::memory(dir_.path(), "nr_blocks=8589934592");
  std::uint64_t blocks = 0;
  EXPECT_TRUE(proxy_.freeBlocks(dir_.path(), blocks));
  EXPECT_EQ(blocks, 8589934592U);
}

TEST_F(FilesTest, FreeBlocksOfAMissingPathDoesNotSetTheNumber) {
  std::uint64_t blocks = 7;
  EXPECT_FALSE(proxy_.freeBlocks(dir_.file("none"), blocks));
  EXPECT_EQ(statusText(), failureWith(ENOENT));
  EXPECT_EQ(blocks, 7U);
}

TEST_F(FilesTest, AZeroByteInAPathIsRefused) {
  dir_.write("a", "content");
  char before[4096];
  ASSERT_NE(getcwd(before, sizeof before), nullptr);
  ASSERT_EQ(chdir(dir_.path().c_str()), 0);
  struct stat st {};
  Names names;
  std::uint64_t blocks = 0;
  const std::string expected = failureWith(EINVAL);
  const std::vector<std::function<void()>> operations{
      [&] { (void)proxy_.fileExists(zero_); },
      [&] { (void)proxy_.access(zero_, 0); },
      [&] { (void)proxy_.stat(zero_, st); },
      [&] { (void)proxy_.lstat(zero_, st); },
      [&] { (void)proxy_.unlink(zero_); },
      [&] { (void)proxy_.chmodx(zero_); },
      [&] { (void)proxy_.realPath(zero_); },
      [&] { (void)proxy_.rename(zero_, "b"); },
      [&] { (void)proxy_.rename("a", zero_); },
      [&] { (void)proxy_.readDir(zero_, names); },
      [&] { (void)proxy_.freeBlocks(zero_, blocks); },
      [&] { (void)proxy_.walkTree(zero_); }};
  for (std::size_t i = 0; i < operations.size(); ++i) {
    (void)proxy_.fileExists("a");
    operations[i]();
    EXPECT_EQ(statusText(), expected) << i;
  }
  ASSERT_EQ(chdir(before), 0);
  EXPECT_EQ(contentOf(dir_.file("a")), "content");
  EXPECT_EQ(statusOf(dir_.file("a")).st_mode & 0111U, 0U);
}

}  // namespace
}  // namespace zell::test
