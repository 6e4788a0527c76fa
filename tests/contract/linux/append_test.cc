// SPDX-License-Identifier: Apache-2.0
// Appending to files: all bytes or none.
#include <cerrno>
#include <string>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

#include "base/unique_fd.h"
#include "contract/linux/mount.h"
#include "contract/linux/proxy_test.h"
#include "contract/linux/silent_reader.h"
#include "support/spied_calls.h"

namespace zell::test {
namespace {

using Names = std::vector<std::string>;
using AppendTest = ProxyTest;

TEST_F(AppendTest, AppendsToTheSameFile) {
  const std::string path = dir_.write("a", "begin ");
  ASSERT_EQ(chmod(path.c_str(), 0600), 0);
  const ino_t inode = statusOf(path).st_ino;
  EXPECT_EQ(append(path, "a"), kSuccess);
  EXPECT_EQ(append(path, std::string("\0b", 2)), kSuccess);
  EXPECT_EQ(append(path, ""), kSuccess);
  EXPECT_EQ(contentOf(path), std::string("begin a\0b", 9));
  EXPECT_EQ(statusOf(path).st_ino, inode);
  EXPECT_EQ(statusOf(path).st_mode, S_IFREG | 0600U);
}

TEST_F(AppendTest, CreatesAMissingFileWithThePermissionsOfTheUmask) {
  const mode_t before = umask(027);
  EXPECT_EQ(append(dir_.file("a"), "content"), kSuccess);
  umask(before);
  EXPECT_EQ(contentOf(dir_.file("a")), "content");
  EXPECT_EQ(statusOf(dir_.file("a")).st_mode, S_IFREG | 0640U);
}

TEST_F(AppendTest, CreatesTheTargetOfADanglingLink) {
  ASSERT_EQ(symlink("target", dir_.file("link").c_str()), 0);
  EXPECT_EQ(append(dir_.file("link"), "content"), kSuccess);
  EXPECT_EQ(contentOf(dir_.file("target")), "content");
  EXPECT_TRUE(S_ISLNK(statusOf(dir_.file("link")).st_mode));
}

TEST_F(AppendTest, SyncsBeforeItReturns) {
  const std::string path = dir_.write("a", "old");
  SpiedCalls spy;
  EXPECT_EQ(append(path, "x"), kSuccess);
  EXPECT_EQ(spy.calls(), (Names{"write", "fsync file"}));
}

TEST_F(AppendTest, SyncsTheDirectoryOfANewFile) {
  SpiedCalls spy;
  EXPECT_EQ(append(dir_.file("a"), "x"), kSuccess);
  EXPECT_EQ(spy.calls(), (Names{"write", "fsync file", "fsync directory"}));
}

TEST_F(AppendTest, TruncatesAfterAPartialWrite) {
  const Mount memory = Mount::memory(dir_.path(), "size=64k");
  const std::string path = dir_.write("a", "old");
  EXPECT_EQ(append(path, std::string(100000, 'x')), failureWith(ENOSPC));
  EXPECT_EQ(contentOf(path), "old");
  EXPECT_EQ(append(path, std::string(30000, 'x')), kSuccess);
}

TEST_F(AppendTest, CreatesNoFileWhenTheContentDoesNotFit) {
  const Mount memory = Mount::memory(dir_.path(), "size=64k");
  EXPECT_EQ(append(dir_.file("a"), std::string(100000, 'x')), failureWith(ENOSPC));
  Names names;
  EXPECT_TRUE(proxy_.readDir(dir_.path(), names));
  EXPECT_EQ(names, Names{});
}

TEST_F(AppendTest, TruncatesAfterAFailedSync) {
  const std::string path = dir_.write("a", "old");
  SpiedCalls spy;
  spy.fail("fsync file", EIO);
  EXPECT_EQ(append(path, "new"), failureWith(EIO));
  EXPECT_EQ(contentOf(path), "old");
  EXPECT_EQ(spy.calls(), (Names{"write", "fsync file", "ftruncate", "fsync file"}));
}

TEST_F(AppendTest, CreatesNoFileWhenTheDirectoryCannotBeSynced) {
  SpiedCalls spy;
  spy.fail("fsync directory", EIO);
  EXPECT_EQ(append(dir_.file("a"), "new"), failureWith(EIO));
  EXPECT_FALSE(proxy_.fileExists(dir_.file("a")));
}

TEST_F(AppendTest, FailsOnAPathThatCannotBeAFile) {
  EXPECT_EQ(append("", "x"), failureWith(ENOENT));
  EXPECT_EQ(append(dir_.path(), "x"), failureWith(EISDIR));
  EXPECT_EQ(append(dir_.file("none/a"), "x"), failureWith(ENOENT));
  EXPECT_EQ(append(dir_.write("file", "") + "/a", "x"), failureWith(ENOTDIR));
  EXPECT_EQ(append(dir_.file("file") + std::string("\0x", 2), "x"), failureWith(EINVAL));
  EXPECT_EQ(contentOf(dir_.file("file")), "");
}

TEST_F(AppendTest, WritesToDevicesAndDoesNotWaitForTheReaderOfAFifo) {
  ASSERT_EQ(mkfifo(dir_.file("fifo").c_str(), 0644), 0);
  EXPECT_EQ(append(dir_.file("fifo"), "x"), failureWith(ENXIO));
  EXPECT_EQ(append("/dev/null", "x"), kSuccess);
  EXPECT_EQ(append("/dev/full", "x"), failureWith(ENOSPC));
}

TEST_F(AppendTest, GivesUpWhenTheReaderOfAFifoReadsNothing) {
  const SilentReader reader = SilentReader::ofFifo(dir_.file("fifo"));
  expectGivesUp(reader, [&](const std::string& data) { return append(reader.path(), data); });
}

TEST_F(AppendTest, GivesUpWhenTheReaderOfATerminalReadsNothing) {
  const SilentReader reader = SilentReader::ofTerminal();
  expectGivesUp(reader, [&](const std::string& data) { return append(reader.path(), data); });
}

TEST_F(AppendTest, FailsWhenTheSizeOfTheFileIsUnknown) {
  const std::string path = dir_.write("a", "old");
  SpiedCalls spy;
  spy.fail("fstat", EIO);
  EXPECT_EQ(append(path, "new"), failureWith(EIO));
  EXPECT_EQ(contentOf(path), "old");
}

TEST_F(AppendTest, FailsOnAReadOnlyFileSystem) {
  const Mount memory = Mount::memory(dir_.path());
  const std::string path = dir_.write("a", "old");
  memory.makeReadOnly();
  EXPECT_EQ(append(path, "new"), failureWith(EROFS));
  EXPECT_EQ(append(dir_.file("b"), "new"), failureWith(EROFS));
}

}  // namespace
}  // namespace zell::test
