// SPDX-License-Identifier: Apache-2.0
// Replacing files atomically.
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include "base/unique_fd.h"
#include "contract/linux/mount.h"
#include "contract/linux/proxy_test.h"
#include "contract/linux/refused_calls.h"
#include "contract/linux/silent_reader.h"
#include "support/spied_calls.h"

namespace zell::test {
namespace {

using Names = std::vector<std::string>;

#ifdef SYS_renameat
constexpr int kRename = SYS_renameat;
#else
constexpr int kRename = SYS_renameat2;
#endif

class WriteTest : public ProxyTest {
 protected:
  Names namesIn(const std::string& directory) {
    Names names;
    EXPECT_TRUE(proxy_.readDir(directory, names)) << directory;
    return names;
  }
  ino_t inodeOf(const std::string& path) { return statusOf(path).st_ino; }
};

TEST_F(WriteTest, CreatesANewFileWithThePermissionsOfTheUmask) {
  const mode_t before = umask(027);
  EXPECT_EQ(write(dir_.file("a"), "content"), kSuccess);
  umask(before);
  EXPECT_EQ(contentOf(dir_.file("a")), "content");
  EXPECT_EQ(statusOf(dir_.file("a")).st_mode, S_IFREG | 0640U);
  EXPECT_EQ(namesIn(dir_.path()), Names{"a"});
}

TEST_F(WriteTest, KeepsPermissionsAndOwnerOfTheFileReplaced) {
  const std::string path = dir_.write("a", "old");
  ASSERT_EQ(chown(path.c_str(), 1234, 2345), 0);
  ASSERT_EQ(chmod(path.c_str(), 06751), 0);
  EXPECT_EQ(write(path, "new"), kSuccess);
  const struct stat st = statusOf(path);
  EXPECT_EQ(contentOf(path), "new");
  EXPECT_EQ(st.st_mode, S_IFREG | 06751U);
  EXPECT_EQ(st.st_uid, 1234U);
  EXPECT_EQ(st.st_gid, 2345U);
}

TEST_F(WriteTest, ShowsAReaderTheOldContentOrTheNewOne) {
  const std::string path = dir_.write("a", "old");
  const UniqueFd reader(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  EXPECT_EQ(write(path, "new content"), kSuccess);
  char content[16];
  EXPECT_EQ(::read(reader.get(), content, sizeof content), 3);
  EXPECT_EQ(std::string(content, 3), "old");
}

TEST_F(WriteTest, EmptiesAFile) {
  const std::string path = dir_.write("a", "old");
  EXPECT_EQ(write(path, ""), kSuccess);
  EXPECT_EQ(contentOf(path), "");
}

TEST_F(WriteTest, WritesBytesOfEveryKindAndMany) {
  std::string all(3000000, '\0');
  for (std::size_t i = 0; i < all.size(); ++i) {
    all[i] = static_cast<char>(i * 7 + i / 256);
  }
  EXPECT_EQ(write(dir_.file("a"), all), kSuccess);
  EXPECT_TRUE(contentOf(dir_.file("a")) == all);
}

TEST_F(WriteTest, SyncsTheFileBeforeTheRenameAndTheDirectoryAfterIt) {
  SpiedCalls spy;
  EXPECT_EQ(write(dir_.file("a"), "content"), kSuccess);
  EXPECT_EQ(spy.calls(), (Names{"write", "fsync file", "renameat", "fsync directory"}));
}

TEST_F(WriteTest, SetsOwnerAndPermissionsBeforeTheContent) {
  const std::string path = dir_.write("a", "old");
  SpiedCalls spy;
  EXPECT_EQ(write(path, "new"), kSuccess);
  EXPECT_EQ(spy.calls(),
            (Names{"fchown", "fchmod", "write", "fsync file", "renameat", "fsync directory"}));
}

TEST_F(WriteTest, FollowsLinks) {
  const std::string path = dir_.write("a", "old");
  mkdir(dir_.file("below").c_str(), 0755);
  ASSERT_EQ(symlink("../a", dir_.file("below/relative").c_str()), 0);
  ASSERT_EQ(symlink(dir_.file("below/relative").c_str(), dir_.file("absolute").c_str()), 0);
  EXPECT_EQ(write(dir_.file("absolute"), "new"), kSuccess);
  EXPECT_EQ(contentOf(path), "new");
  EXPECT_TRUE(S_ISREG(statusOf(path).st_mode));
  EXPECT_TRUE(S_ISLNK(statusOf(dir_.file("absolute")).st_mode));
  EXPECT_TRUE(S_ISLNK(statusOf(dir_.file("below/relative")).st_mode));
  EXPECT_EQ(namesIn(dir_.file("below")), Names{"relative"});
}

TEST_F(WriteTest, CreatesTheTargetOfADanglingLink) {
  mkdir(dir_.file("below").c_str(), 0755);
  ASSERT_EQ(symlink("below/target", dir_.file("link").c_str()), 0);
  EXPECT_EQ(write(dir_.file("link"), "content"), kSuccess);
  EXPECT_TRUE(S_ISLNK(statusOf(dir_.file("link")).st_mode));
  EXPECT_TRUE(S_ISREG(statusOf(dir_.file("below/target")).st_mode));
  EXPECT_EQ(contentOf(dir_.file("below/target")), "content");
}

TEST_F(WriteTest, FailsOnALinkToAMissingDirectoryOrALoop) {
  ASSERT_EQ(symlink("none/target", dir_.file("nowhere").c_str()), 0);
  ASSERT_EQ(symlink("circle", dir_.file("circle").c_str()), 0);
  EXPECT_EQ(write(dir_.file("nowhere"), "content"), failureWith(ENOENT));
  EXPECT_EQ(write(dir_.file("circle"), "content"), failureWith(ELOOP));
}

TEST_F(WriteTest, AcceptsNamesAndPathsOfEveryLength) {
  const std::string longest(255, 'n');
  EXPECT_EQ(write(dir_.file(longest), "content"), kSuccess);
  EXPECT_EQ(write(dir_.file(longest), "new content"), kSuccess);
  EXPECT_EQ(contentOf(dir_.file(longest)), "new content");
  EXPECT_EQ(write(dir_.file(longest + "n"), "content"), failureWith(ENAMETOOLONG));

  std::string path = dir_.path();
  while (path.size() + 300 < 4096) {
    path += "/" + std::string(200, 'd');
    ASSERT_EQ(mkdir(path.c_str(), 0755), 0);
  }
  path += "/" + std::string(4094 - path.size(), 'f');
  EXPECT_EQ(write(path, "content"), kSuccess);
  EXPECT_EQ(write(path, "new content"), kSuccess);
  EXPECT_EQ(contentOf(path), "new content");
  EXPECT_EQ(write(path + "x", "content"), failureWith(ENAMETOOLONG));
}

TEST_F(WriteTest, WritesRelativeToTheCurrentDirectory) {
  char before[4096];
  ASSERT_NE(getcwd(before, sizeof before), nullptr);
  ASSERT_EQ(chdir(dir_.path().c_str()), 0);
  EXPECT_EQ(write("a", "content"), kSuccess);
  EXPECT_EQ(write("./a", "new"), kSuccess);
  ASSERT_EQ(chdir(before), 0);
  EXPECT_EQ(contentOf(dir_.file("a")), "new");
}

TEST_F(WriteTest, FailsOnAPathThatCannotBeAFile) {
  const std::string file = dir_.write("file", "old");
  EXPECT_EQ(write("", "x"), failureWith(ENOENT));
  EXPECT_EQ(write(dir_.file("none/a"), "x"), failureWith(ENOENT));
  EXPECT_EQ(write(dir_.file("none/"), "x"), failureWith(ENOENT));
  EXPECT_EQ(write(file + "/a", "x"), failureWith(ENOTDIR));
  EXPECT_EQ(write(file + "/", "x"), failureWith(ENOTDIR));
  EXPECT_EQ(write(dir_.path(), "x"), failureWith(EISDIR));
  EXPECT_EQ(write(dir_.path() + "/.", "x"), failureWith(EISDIR));
  EXPECT_EQ(write("/", "x"), failureWith(EISDIR));
  EXPECT_EQ(contentOf(file), "old");
}

TEST_F(WriteTest, RefusesAZeroByteInAPath) {
  const std::string path = dir_.write("a", "old");
  EXPECT_EQ(write(path + std::string("\0x", 2), "new"), failureWith(EINVAL));
  EXPECT_EQ(contentOf(path), "old");
  EXPECT_EQ(namesIn(dir_.path()), Names{"a"});
}

// Each system call of a replacement fails in turn. The file is unchanged, without a temporary file.
TEST_F(WriteTest, LeavesTheFileUnchangedWhenACallFails) {
  const std::string path = dir_.write("a", "old");
  for (const char* call :
       {"openat file", "fchown", "fchmod", "write", "fsync file", "close", "renameat"}) {
    for (const int error : {EIO, ENOSPC, EDQUOT, EINVAL}) {
      SpiedCalls spy;
      spy.fail(call, error);
      EXPECT_EQ(write(path, "new"), failureWith(error)) << call;
      EXPECT_EQ(contentOf(path), "old") << call;
      EXPECT_EQ(namesIn(dir_.path()), Names{"a"}) << call;
    }
  }
}

// Only a refused temporary file causes writing in place. A later refusal is a failure.
TEST_F(WriteTest, LeavesTheFileUnchangedWhenALaterCallIsRefused) {
  const std::string path = dir_.write("a", "old");
  for (const char* call : {"write", "fsync file", "close", "renameat"}) {
    for (const int error : {EACCES, EPERM, EROFS, ENOENT}) {
      SpiedCalls spy;
      spy.fail(call, error);
      EXPECT_EQ(write(path, "new"), failureWith(error)) << call;
      EXPECT_EQ(contentOf(path), "old") << call;
      EXPECT_EQ(namesIn(dir_.path()), Names{"a"}) << call;
    }
  }
}

// EBUSY means a mount point only if the rename returns it.
TEST_F(WriteTest, LeavesTheFileUnchangedWhenAnEarlierCallIsBusy) {
  const std::string path = dir_.write("a", "old");
  for (const char* call : {"openat directory", "readlinkat", "fstatat", "openat file", "fchown",
                           "fchmod", "write", "fsync file", "close"}) {
    SpiedCalls spy;
    spy.fail(call, EBUSY);
    EXPECT_EQ(write(path, "new"), failureWith(EBUSY)) << call;
    EXPECT_EQ(contentOf(path), "old") << call;
    EXPECT_EQ(namesIn(dir_.path()), Names{"a"}) << call;
  }
}

// Only a file that cannot be replaced is written in place, not one whose location is unknown.
TEST_F(WriteTest, DoesNotWriteInPlaceWhenTheLocationIsUnknown) {
  const std::string path = dir_.write("a", "old");
  for (const char* call : {"fstatat", "readlinkat"}) {
    for (const int error : {EIO, ENOMEM, ENAMETOOLONG, ELOOP}) {
      SpiedCalls spy;
      spy.fail(call, error);
      EXPECT_EQ(write(path, "new"), failureWith(error)) << call;
      EXPECT_EQ(contentOf(path), "old") << call;
      EXPECT_EQ(spy.calls(), std::vector<std::string>{}) << call;
    }
  }
}

TEST_F(WriteTest, CreatesNoFileWhenACallFails) {
  for (const char* call : {"write", "fsync file", "renameat"}) {
    SpiedCalls spy;
    spy.fail(call, EIO);
    EXPECT_EQ(write(dir_.file("a"), "new"), failureWith(EIO)) << call;
    EXPECT_EQ(namesIn(dir_.path()), Names{}) << call;
  }
}

TEST_F(WriteTest, FailsWhenTheDirectoryCannotBeSynced) {
  SpiedCalls spy;
  spy.fail("fsync directory", EIO);
  EXPECT_EQ(write(dir_.file("a"), "new"), failureWith(EIO));
}

TEST_F(WriteTest, SucceedsWhereDirectoriesCannotBeSynced) {
  SpiedCalls spy;
  spy.fail("fsync directory", EINVAL);
  EXPECT_EQ(write(dir_.file("a"), "new"), kSuccess);
}

TEST_F(WriteTest, ContinuesAfterAnInterruptedWrite) {
  SpiedCalls spy;
  spy.fail("write", EINTR);
  EXPECT_EQ(write(dir_.file("a"), "content"), kSuccess);
  EXPECT_EQ(contentOf(dir_.file("a")), "content");
}

TEST_F(WriteTest, LeavesTheFileUnchangedOnAFullFileSystem) {
  const Mount memory = Mount::memory(dir_.path(), "size=64k");
  const std::string path = dir_.write("a", "old");
  EXPECT_EQ(write(path, std::string(100000, 'x')), failureWith(ENOSPC));
  EXPECT_EQ(write(dir_.file("b"), std::string(100000, 'x')), failureWith(ENOSPC));
  EXPECT_EQ(contentOf(path), "old");
  EXPECT_EQ(namesIn(dir_.path()), Names{"a"});
  EXPECT_EQ(write(path, std::string(30000, 'x')), kSuccess);
}

TEST_F(WriteTest, DoesNotWriteInPlaceWhenOutOfInodes) {
  const Mount memory = Mount::memory(dir_.path(), "nr_inodes=2");
  const std::string path = dir_.write("a", "old");
  EXPECT_EQ(write(path, "new"), failureWith(ENOSPC));
  EXPECT_EQ(contentOf(path), "old");
}

TEST_F(WriteTest, DoesNotWriteInPlaceWhenOutOfDescriptors) {
  const std::string path = dir_.write("a", "old");
  EXPECT_EQ(inChild([&] {
              std::vector<UniqueFd> all;
              for (UniqueFd fd(dup(0)); fd.valid(); fd.reset(dup(0))) {
                all.push_back(std::move(fd));
              }
              const std::string none = write(path, "new");
              all.pop_back();  // enough for the directory, not for the temporary file
              return none + ", " + write(path, "new");
            }),
            failureWith(EMFILE) + ", " + failureWith(EMFILE));
  EXPECT_EQ(contentOf(path), "old");
}

TEST_F(WriteTest, FailsOnAReadOnlyFileSystem) {
  const Mount memory = Mount::memory(dir_.path());
  const std::string path = dir_.write("a", "old");
  memory.makeReadOnly();
  EXPECT_EQ(write(path, "new"), failureWith(EROFS));
  EXPECT_EQ(write(dir_.file("b"), "new"), failureWith(EROFS));
  EXPECT_EQ(contentOf(path), "old");
}

TEST_F(WriteTest, WritesInPlaceWhereTheDirectoryIsReadOnly) {
  const TempDir elsewhere;
  const std::string writable = elsewhere.write("writable", "old and long");
  const Mount memory = Mount::memory(dir_.path());
  const std::string path = dir_.write("a", "");
  memory.makeReadOnly();
  const Mount file = Mount::bind(writable, path);
  EXPECT_EQ(write(path, "new"), kSuccess);
  EXPECT_EQ(contentOf(writable), "new");
}

TEST_F(WriteTest, WritesAMountPointInPlace) {
  const std::string other = dir_.write("other", "old and long");
  const std::string path = dir_.write("a", "hidden");
  const Mount mount = Mount::bind(other, path);
  EXPECT_EQ(write(path, "new"), kSuccess);
  EXPECT_EQ(contentOf(other), "new");
  EXPECT_EQ(inodeOf(path), inodeOf(other));
  EXPECT_EQ(namesIn(dir_.path()), (Names{"a", "other"}));
}

TEST_F(WriteTest, WritesInPlaceWhereTheDirectoryRefusesNewFiles) {
  const std::string path = dir_.write("a", "old and long");
  chmod(path.c_str(), 0666);
  chmod(dir_.path().c_str(), 0555);
  const ino_t inode = inodeOf(path);
  EXPECT_EQ(inChild([&] {
              return setuid(kUnprivileged) == 0
                         ? write(path, "new") + ", " + write(dir_.file("b"), "new")
                         : "still root";
            }),
            std::string(kSuccess) + ", " + failureWith(EACCES));
  EXPECT_EQ(contentOf(path), "new");
  EXPECT_EQ(inodeOf(path), inode);
}

TEST_F(WriteTest, WritesInPlaceWhereTheOwnerCannotBeKept) {
  const std::string path = dir_.write("a", "old and long");
  chmod(path.c_str(), 0666);
  chmod(dir_.path().c_str(), 0777);
  EXPECT_EQ(inChild([&] { return setuid(kUnprivileged) == 0 ? write(path, "new") : "still root"; }),
            kSuccess);
  EXPECT_EQ(contentOf(path), "new");
  EXPECT_EQ(statusOf(path).st_uid, 0U);
  EXPECT_EQ(namesIn(dir_.path()), Names{"a"});
}

TEST_F(WriteTest, WritesInPlaceWhereTheTemporaryFileIsRefused) {
  const std::string path = dir_.write("a", "");
  const ino_t inode = inodeOf(path);
  for (const char* call : {"openat file", "fchown", "fchmod"}) {
    for (const int error : {EACCES, EPERM, EROFS, ENOENT}) {
      dir_.write("a", "old and long");
      SpiedCalls spy;
      spy.fail(call, error);
      EXPECT_EQ(write(path, "new"), kSuccess) << call << " " << error;
      EXPECT_EQ(contentOf(path), "new") << call << " " << error;
      EXPECT_EQ(inodeOf(path), inode) << call << " " << error;
      EXPECT_EQ(namesIn(dir_.path()), Names{"a"}) << call << " " << error;
    }
  }
}

TEST_F(WriteTest, WritesInPlaceWhereTheDirectoryCannotBeFound) {
  const std::string path = dir_.write("a", "");
  const ino_t inode = inodeOf(path);
  for (const char* call : {"openat directory", "fstatat"}) {
    for (const int error : {ENOENT, EACCES, EPERM, EROFS}) {
      dir_.write("a", "old and long");
      SpiedCalls spy;
      spy.fail(call, error);
      EXPECT_EQ(write(path, "new"), kSuccess) << call << " " << error;
      EXPECT_EQ(contentOf(path), "new") << call << " " << error;
      EXPECT_EQ(inodeOf(path), inode) << call << " " << error;
    }
  }
}

// Execute permission only: files are reachable by name, but the directory cannot be opened.
TEST_F(WriteTest, WritesInPlaceWhereTheDirectoryCanOnlyBeSearched) {
  const std::string path = dir_.write("a", "old and long");
  chmod(path.c_str(), 0666);
  chmod(dir_.path().c_str(), 0333);
  const ino_t inode = inodeOf(path);
  EXPECT_EQ(inChild([&] {
              return setuid(kUnprivileged) == 0
                         ? write(path, "new") + ", " + write(dir_.file("b"), "new")
                         : "still root";
            }),
            std::string(kSuccess) + ", " + failureWith(EACCES));
  EXPECT_EQ(contentOf(path), "new");
  EXPECT_EQ(inodeOf(path), inode);
}

TEST_F(WriteTest, WritesInPlaceWhereTheDirectoryIsGone) {
  ASSERT_EQ(mkdir(dir_.file("below").c_str(), 0755), 0);
  const UniqueFd file(open(dir_.write("below/a", "old").c_str(), O_RDWR | O_CLOEXEC));
  ASSERT_EQ(unlink(dir_.file("below/a").c_str()), 0);
  ASSERT_EQ(rmdir(dir_.file("below").c_str()), 0);
  EXPECT_EQ(write("/proc/self/fd/" + std::to_string(file.get()), "new content"), kSuccess);
  char content[16];
  EXPECT_EQ(pread(file.get(), content, sizeof content, 0), 11);
  EXPECT_EQ(namesIn(dir_.path()), Names{});
}

TEST_F(WriteTest, WritesTheKernelsOwnFiles) {
  EXPECT_EQ(write("/proc/sys/kernel/domainname", "runeld-test"), kSuccess);
  EXPECT_EQ(contentOf("/proc/sys/kernel/domainname"), "runeld-test\n");
}

TEST_F(WriteTest, WritesToDevices) {
  EXPECT_EQ(write("/dev/null", "content"), kSuccess);
  EXPECT_TRUE(S_ISCHR(statusOf("/dev/null").st_mode));
  EXPECT_EQ(write("/dev/full", "content"), failureWith(ENOSPC));
}

TEST_F(WriteTest, WritesToTheTargetOfAMagicLink) {
  const UniqueFd file(open(dir_.write("a", "old").c_str(), O_RDWR | O_CLOEXEC));
  unlink(dir_.file("a").c_str());
  EXPECT_EQ(write("/proc/self/fd/" + std::to_string(file.get()), "new"), kSuccess);
  char content[16];
  EXPECT_EQ(pread(file.get(), content, sizeof content, 0), 3);
  EXPECT_EQ(namesIn(dir_.path()), Names{});
}

// The text of the link names a file that is not its target.
TEST_F(WriteTest, DoesNotWriteToThePathThatAMagicLinkShows) {
  const UniqueFd file(open(dir_.write("a", "old").c_str(), O_RDWR | O_CLOEXEC));
  unlink(dir_.file("a").c_str());
  const std::string other = dir_.write("a (deleted)", "other");
  EXPECT_EQ(write("/proc/self/fd/" + std::to_string(file.get()), "new"), kSuccess);
  char content[16];
  EXPECT_EQ(pread(file.get(), content, sizeof content, 0), 3);
  EXPECT_EQ(contentOf(other), "other");
}

TEST_F(WriteTest, WritesIntoTheRootDirectory) {
  EXPECT_EQ(inChild([&] {
              return chroot(dir_.path().c_str()) == 0
                         ? write("/a", "new") + ", " + append("/b", "x")
                         : "no other root";
            }),
            std::string(kSuccess) + ", " + kSuccess);
  EXPECT_EQ(contentOf(dir_.file("a")), "new");
  EXPECT_EQ(contentOf(dir_.file("b")), "x");
}

TEST_F(WriteTest, DoesNotWaitForTheReaderOfAFifo) {
  const std::string path = dir_.file("fifo");
  ASSERT_EQ(mkfifo(path.c_str(), 0644), 0);
  EXPECT_EQ(write(path, "content"), failureWith(ENXIO));
  EXPECT_TRUE(S_ISFIFO(statusOf(path).st_mode));
}

TEST_F(WriteTest, WritesEverythingToAFifoWithAReader) {
  const std::string path = dir_.file("fifo");
  ASSERT_EQ(mkfifo(path.c_str(), 0644), 0);
  const UniqueFd fifo(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  const std::string data(1000000, 'x');
  std::string taken;
  std::thread reader([&] {
    char piece[5000];
    EXPECT_TRUE(becomesTrue([&] {
      const ssize_t length = ::read(fifo.get(), piece, sizeof piece);
      taken.append(piece, static_cast<std::size_t>(std::max<ssize_t>(length, 0)));
      return taken.size() >= data.size();
    }));
  });
  EXPECT_EQ(write(path, data), kSuccess);
  reader.join();
  EXPECT_TRUE(taken == data);
}

TEST_F(WriteTest, WaitsForTheReaderOfAFifoThroughSignals) {
  const std::string path = dir_.file("fifo");
  ASSERT_EQ(mkfifo(path.c_str(), 0644), 0);
  const UniqueFd fifo(open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC));
  const std::string full(65536, 'f');
  ASSERT_EQ(::write(fifo.get(), full.data(), full.size()), static_cast<ssize_t>(full.size()));
  // The first signals arrive while the FIFO is full; a later one empties it.
  static int reader;
  static std::atomic<int> signals;
  reader = fifo.get();
  signals = 0;
  struct sigaction taking {};
  struct sigaction before {};
  taking.sa_handler = [](int) {
    char piece[65536];
    if (++signals == 3) {
      (void)!::read(reader, piece, sizeof piece);
    }
  };
  sigaction(SIGALRM, &taking, &before);
  const itimerval often{{0, 20000}, {0, 20000}};
  const itimerval never{};
  setitimer(ITIMER_REAL, &often, nullptr);
  const std::string result = write(path, "content");
  setitimer(ITIMER_REAL, &never, nullptr);
  sigaction(SIGALRM, &before, nullptr);
  EXPECT_EQ(result, kSuccess);
  EXPECT_GE(signals, 3);
}

TEST_F(WriteTest, GivesUpWhenTheReaderOfAFifoReadsNothing) {
  const SilentReader reader = SilentReader::ofFifo(dir_.file("fifo"));
  expectGivesUp(reader, [&](const std::string& data) { return write(reader.path(), data); });
}

TEST_F(WriteTest, GivesUpWhenTheReaderOfATerminalReadsNothing) {
  const SilentReader reader = SilentReader::ofTerminal();
  expectGivesUp(reader, [&](const std::string& data) { return write(reader.path(), data); });
}

TEST_F(WriteTest, RemovesTheTemporaryFileOfAPowerCut) {
  const std::string path = dir_.write("a", "old");
  EXPECT_EQ(inChild([&] {
              refuseCalls(kRename, EIO);
              refuseCalls(SYS_unlinkat, EIO);
              return write(path, "half");
            }),
            failureWith(EIO));
  ASSERT_EQ(namesIn(dir_.path()).size(), 2U);
  EXPECT_EQ(write(path, "new"), kSuccess);
  EXPECT_EQ(namesIn(dir_.path()), Names{"a"});
}

TEST_F(WriteTest, UsesAnotherNameWhenADirectoryHasThatOfTheTemporaryFile) {
  const std::string path = dir_.write("a", "old");
  EXPECT_EQ(inChild([&] {
              refuseCalls(kRename, EIO);
              refuseCalls(SYS_unlinkat, EIO);
              return write(path, "half");
            }),
            failureWith(EIO));
  const Names names = namesIn(dir_.path());
  ASSERT_EQ(names.size(), 2U);
  ASSERT_EQ(unlink(dir_.file(names.front()).c_str()), 0);
  ASSERT_EQ(mkdir(dir_.file(names.front()).c_str(), 0755), 0);
  EXPECT_EQ(write(path, "new"), kSuccess);
  EXPECT_EQ(contentOf(path), "new");
  EXPECT_EQ(namesIn(dir_.path()), names);
}

TEST_F(WriteTest, FailsWhenDirectoriesHaveEveryTemporaryName) {
  const std::string path = dir_.write("a", "old");
  const auto putADirectoryInItsPlace = [&] {
    for (const std::string& name : namesIn(dir_.path())) {
      if (name != "a" && unlink(dir_.file(name).c_str()) == 0) {
        EXPECT_EQ(mkdir(dir_.file(name).c_str(), 0755), 0);
      }
    }
  };
  SpiedCalls spy;
  std::string answer = failureWith(ENOTDIR);
  for (int i = 0; i < 100 && answer == failureWith(ENOTDIR); ++i) {
    spy.before("renameat", 0, putADirectoryInItsPlace);
    answer = write(path, "new");
  }
  EXPECT_EQ(answer, failureWith(EEXIST));
  EXPECT_EQ(contentOf(path), "old");
}

TEST_F(WriteTest, FailsWhenAWriteReturnsZero) {
  const std::string path = dir_.write("a", "old");
  SpiedCalls spy;
  spy.fail("write", SpiedCalls::kReturnsZero);
  EXPECT_EQ(write(path, "new"), failureWith(EIO));
  EXPECT_EQ(contentOf(path), "old");
}

// Directories have all temporary names but the last one, which a stale temporary file has.
TEST_F(WriteTest, UsesTheEighthTemporaryNameAsWell) {
  const std::string path = dir_.write("a", "old");
  std::string last;
  for (int i = 0; i < 8; ++i) {
    SpiedCalls spy;
    spy.before("renameat", 0, [&] {
      for (const std::string& name : namesIn(dir_.path())) {
        if (name != "a" && unlink(dir_.file(name).c_str()) == 0) {
          EXPECT_EQ(mkdir(dir_.file(name).c_str(), 0755), 0);
          last = name;
        }
      }
    });
    EXPECT_EQ(write(path, "half"), failureWith(ENOTDIR)) << i;
  }
  ASSERT_EQ(rmdir(dir_.file(last).c_str()), 0);
  dir_.write(last, "half");
  EXPECT_EQ(write(path, "new"), kSuccess);
  EXPECT_EQ(contentOf(path), "new");
  EXPECT_EQ(namesIn(dir_.path()).size(), 8U);
}

}  // namespace
}  // namespace zell::test
