// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <sstream>
#include <string>
#include <thread>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <sys/un.h>
#include <unistd.h>

#include <zell/file_tree_walker.h>

#include "base/unique_fd.h"
#include "contract/linux/mount.h"
#include "contract/linux/proxy_test.h"
#include "contract/linux/refused_calls.h"
#include "support/spied_calls.h"

namespace zell::test {
namespace {

class TreeWalkTest : public ProxyTest {
 protected:
  /// The output of the walk at @p path.
  std::string walk(const std::string& path) {
    std::ostringstream out;
    if (const FileTreeWalker* const walker = proxy_.walkTree(path)) {
      walker->print(out);
    }
    return out.str();
  }

  /// Sets fixed times, permissions and owner of @p name in the directory, so that its line is
  /// known.
  void settle(const std::string& name, mode_t mode) const {
    const std::string path = dir_.file(name);
    const timespec times[] = {{1, 0}, {1700000000, 5}};
    EXPECT_EQ(lchown(path.c_str(), 12, 34), 0) << name;
    EXPECT_EQ(chmod(path.c_str(), mode), 0) << name;
    EXPECT_EQ(utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW), 0) << name;
  }

  /// Creates the link @p name with a known line.
  void link(const std::string& target, const std::string& name) const {
    const timespec times[] = {{1, 0}, {1600000000, 0}};
    EXPECT_EQ(symlink(target.c_str(), dir_.file(name).c_str()), 0) << name;
    EXPECT_EQ(utimensat(AT_FDCWD, dir_.file(name).c_str(), times, AT_SYMLINK_NOFOLLOW), 0);
  }

  /// Creates @p depth nested directories "d".
  static void makeDeep(const std::string& top, int depth) {
    UniqueFd directory(open(top.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    for (int i = 0; i < depth; ++i) {
      ASSERT_EQ(mkdirat(directory.get(), "d", 0755), 0);
      directory.reset(openat(directory.get(), "d", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
      ASSERT_TRUE(directory.valid());
    }
  }

  static std::string lastField(const std::string& line) { return line.substr(line.rfind(' ') + 1); }

  /// The paths of the lines.
  static std::vector<std::string> paths(const std::string& lines) {
    std::vector<std::string> all;
    std::istringstream in(lines);
    for (std::string line; std::getline(in, line);) {
      all.push_back(lastField(line));
    }
    return all;
  }
};

TEST_F(TreeWalkTest, PrintsALineForEachEntry) {
  mkdir(dir_.file("sub").c_str(), 0755);
  dir_.write("sub/file", "12345");
  dir_.write("empty", "");
  settle("sub/file", 04644);
  settle("sub", 01755);
  settle("empty", 0);
  settle(".", 0700);
  EXPECT_EQ(walk(dir_.path()),
            "d 0700 12 34 0 1700000000 .\n"
            "- 0000 12 34 0 1700000000 empty\n"
            "d 1755 12 34 0 1700000000 sub\n"
            "- 4644 12 34 5 1700000000 sub/file\n");
  EXPECT_EQ(fields(proxy_), kSuccess);
}

TEST_F(TreeWalkTest, PrintsEveryTypeAndTheSizeOfRegularFilesOnly) {
  const Mount memory = Mount::memory(dir_.path());
  ASSERT_EQ(mknod(dir_.file("block").c_str(), S_IFBLK | 0600, makedev(7, 200)), 0);
  ASSERT_EQ(mknod(dir_.file("char").c_str(), S_IFCHR | 0600, makedev(1, 3)), 0);
  ASSERT_EQ(mkfifo(dir_.file("fifo").c_str(), 0600), 0);
  const UniqueFd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_un address{AF_UNIX, {}};
  dir_.file("socket").copy(address.sun_path, sizeof address.sun_path - 1);
  ASSERT_EQ(bind(socket.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  for (const char* name : {"block", "char", "fifo", "socket", "."}) {
    settle(name, 0600);
  }
  EXPECT_EQ(walk(dir_.path()),
            "d 0600 12 34 0 1700000000 .\n"
            "b 0600 12 34 0 1700000000 block\n"
            "c 0600 12 34 0 1700000000 char\n"
            "p 0600 12 34 0 1700000000 fifo\n"
            "s 0600 12 34 0 1700000000 socket\n");
}

TEST_F(TreeWalkTest, PrintsLinksAndDoesNotFollowThem) {
  mkdir(dir_.file("sub").c_str(), 0755);
  dir_.write("sub/file", "");
  link("sub", "link");
  link("no where", "none");
  const std::string lines = walk(dir_.path());
  EXPECT_NE(lines.find("l 0777 0 0 0 1600000000 link -> sub\n"), std::string::npos) << lines;
  EXPECT_NE(lines.find("l 0777 0 0 0 1600000000 none -> no where\n"), std::string::npos) << lines;
  EXPECT_EQ(lines.find("link/file"), std::string::npos) << lines;
}

TEST_F(TreeWalkTest, PrintsOneLineForAPathThatIsNotADirectory) {
  mkdir(dir_.file("sub").c_str(), 0755);
  dir_.write("sub/file", "123");
  settle("sub/file", 0644);
  link("sub", "link");
  EXPECT_EQ(walk(dir_.file("sub/file")), "- 0644 12 34 3 1700000000 .\n");
  EXPECT_EQ(walk(dir_.file("link")), "l 0777 0 0 0 1600000000 . -> sub\n");
  EXPECT_EQ(fields(proxy_), kSuccess);
}

TEST_F(TreeWalkTest, SortsByByteValueWithinADirectory) {
  for (const char* name : {"b", "a", "a.b", "B"}) {
    mkdir(dir_.file(name).c_str(), 0755);
  }
  dir_.write("a/z", "");
  dir_.write("\xff", "");
  EXPECT_EQ(paths(walk(dir_.path())),
            (std::vector<std::string>{".", "B", "a", "a/z", "a.b", "b", "\xff"}));
}

TEST_F(TreeWalkTest, EscapesBytesThatWouldBreakALine) {
  dir_.write("new\nline\\\x7f\x1f\x80", "");
  link("\ttarget\r", "~link");
  const std::string lines = walk(dir_.path());
  EXPECT_NE(lines.find(" new\\x0aline\\x5c\\x7f\\x1f\x80\n"), std::string::npos) << lines;
  EXPECT_NE(lines.find(" ~link -> \\x09target\\x0d\n"), std::string::npos) << lines;
}

TEST_F(TreeWalkTest, EscapesTheNameOfADirectoryOnAllPathsThroughIt) {
  mkdir(dir_.file("a\nb").c_str(), 0755);
  dir_.write("a\nb/c", "");
  EXPECT_EQ(paths(walk(dir_.path())), (std::vector<std::string>{".", "a\\x0ab", "a\\x0ab/c"}));
}

TEST_F(TreeWalkTest, CrossesMounts) {
  mkdir(dir_.file("mount").c_str(), 0755);
  const Mount memory = Mount::memory(dir_.file("mount"));
  dir_.write("mount/file", "");
  dir_.write("z", "");
  EXPECT_EQ(paths(walk(dir_.path())), (std::vector<std::string>{".", "mount", "mount/file", "z"}));
}

TEST_F(TreeWalkTest, HasNoWalkerForAPathThatCannotBeExamined) {
  EXPECT_EQ(proxy_.walkTree(dir_.file("none")), nullptr);
  EXPECT_EQ(fields(proxy_), failureWith(ENOENT));
  EXPECT_EQ(proxy_.walkTree(""), nullptr);
  EXPECT_EQ(fields(proxy_), failureWith(ENOENT));
  EXPECT_EQ(proxy_.walkTree(dir_.write("a", "") + "/b"), nullptr);
  EXPECT_EQ(fields(proxy_), failureWith(ENOTDIR));
}

TEST_F(TreeWalkTest, ContinuesAfterADirectoryThatCannotBeRead) {
  for (const char* name : {"a", "closed", "z"}) {
    mkdir(dir_.file(name).c_str(), 0755);
  }
  dir_.write("a/1", "");
  dir_.write("closed/2", "");
  dir_.write("z/3", "");
  chmod(dir_.file("closed").c_str(), 0);
  chmod(dir_.path().c_str(), 0755);
  const std::string answer = inChild([&] {
    const std::string lines = setuid(kUnprivileged) == 0 ? walk(dir_.path()) : "still root";
    return fields(proxy_) + "\n" + lines;
  });
  EXPECT_EQ(answer.substr(0, answer.find('\n')), failureWith(EACCES));
  EXPECT_EQ(paths(answer.substr(answer.find('\n') + 1)),
            (std::vector<std::string>{".", "a", "a/1", "closed", "z", "z/3"}));
}

TEST_F(TreeWalkTest, ContinuesAfterEntriesThatCannotBeExamined) {
  mkdir(dir_.file("listed").c_str(), 0755);
  dir_.write("listed/1", "");
  dir_.write("z", "");
  chmod(dir_.file("listed").c_str(), 0444);
  chmod(dir_.path().c_str(), 0755);
  const std::string answer = inChild([&] {
    const std::string lines = setuid(kUnprivileged) == 0 ? walk(dir_.path()) : "still root";
    return fields(proxy_) + "\n" + lines;
  });
  EXPECT_EQ(answer.substr(0, answer.find('\n')), failureWith(EACCES));
  EXPECT_EQ(paths(answer.substr(answer.find('\n') + 1)),
            (std::vector<std::string>{".", "listed", "z"}));
}

TEST_F(TreeWalkTest, NeedsFewDescriptorsAndNoLongPathsForADeepTree) {
  const Mount memory = Mount::memory(dir_.path());
  constexpr int kDepth = 5000;  // far above PATH_MAX
  makeDeep(dir_.path(), kDepth);
  for (const char* name : {"z", "d/z", "d/d/z"}) {
    dir_.write(name, "");
  }
  const std::string answer = inChild([&] {
    const rlimit few{48, 48};
    setrlimit(RLIMIT_NOFILE, &few);
    const std::string lines = walk(dir_.path());
    return fields(proxy_) + " " + std::to_string(paths(lines).size()) +
           lines.substr(lines.size() - 100);
  });
  EXPECT_EQ(answer.substr(0, 14), std::string(kSuccess) + " 5004");
  const std::vector<std::string> last = paths(answer);
  ASSERT_GE(last.size(), 3U);
  EXPECT_EQ(last[last.size() - 3], "d/d/z");
  EXPECT_EQ(last[last.size() - 2], "d/z");
  EXPECT_EQ(last[last.size() - 1], "z");
}

class DeepTreeTest : public TreeWalkTest {
 protected:
  // A tree so deep that the walk closes the upper directories before it has read all their entries.
  void SetUp() override {
    TreeWalkTest::SetUp();
    makeDeep(dir_.path(), kDepth);
    for (const char* name : {"z", "d/z", "d/d/z", "d/d/d/z"}) {
      dir_.write(name, "");
    }
  }

  // "d", "d/d"...
  static std::string directoryAt(int depth) {
    std::string path = "d";
    for (int i = 1; i < depth; ++i) {
      path += "/d";
    }
    return path;
  }

  static constexpr int kDepth = 33;  // three more than the walk keeps open
  SpiedCalls spy_;
};

TEST_F(DeepTreeTest, SkipsTheRestOfDirectoriesThatItCannotReopen) {
  spy_.fail("fstat", EIO);
  const std::vector<std::string> all = paths(walk(dir_.path()));
  EXPECT_EQ(fields(proxy_), failureWith(EIO));
  ASSERT_EQ(all.size(),
            static_cast<std::size_t>(kDepth) + 1 + 3);  // the uppermost ones need the next
  EXPECT_EQ(all.back(), "z");
}

TEST_F(DeepTreeTest, DoesNotContinueElsewhereWhenADirectoryIsMoved) {
  ASSERT_EQ(mkdir(dir_.file("0").c_str(), 0755), 0);
  spy_.before("fstatat", kDepth - 1, [&] {
    ASSERT_EQ(rename(dir_.file(directoryAt(3)).c_str(), dir_.file("0/moved").c_str()), 0);
  });
  const std::vector<std::string> all = paths(walk(dir_.path()));
  EXPECT_EQ(fields(proxy_), failureWith(ESTALE));
  EXPECT_EQ(std::count(all.begin(), all.end(), "d/d/z"), 0);
}

TEST_F(TreeWalkTest, SkipsALinkThatIsRemovedDuringTheWalk) {
  link("target", "link");
  SpiedCalls spy;
  spy.fail("readlinkat", ENOENT);
  EXPECT_EQ(walk(dir_.file("link")), "");
  EXPECT_EQ(fields(proxy_), kSuccess);
  spy.fail("readlinkat", ENOENT);
  EXPECT_EQ(paths(walk(dir_.path())), std::vector<std::string>{"."});
  EXPECT_EQ(fields(proxy_), kSuccess);
}

TEST_F(TreeWalkTest, FailsOnALinkThatCannotBeRead) {
  link("target", "link");
  SpiedCalls spy;
  spy.fail("readlinkat", EIO);
  EXPECT_EQ(paths(walk(dir_.path())), std::vector<std::string>{"."});
  EXPECT_EQ(fields(proxy_), failureWith(EIO));
}

TEST_F(TreeWalkTest, EndsAtTheLimitOfAReply) {
  const Mount memory = Mount::memory(dir_.path());
  std::string name(255, '\n');  // four times as long in a line
  makeDeep(dir_.path(), 1);
  UniqueFd directory(open(dir_.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  for (int i = 0; i < 800; ++i) {  // its square times 500 bytes: about 300 MiB
    ASSERT_EQ(mkdirat(directory.get(), name.c_str(), 0755), 0);
    directory.reset(openat(directory.get(), name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    ASSERT_TRUE(directory.valid());
  }
  (void)proxy_.walkTree(dir_.path());
  EXPECT_EQ(fields(proxy_), failureWith(EFBIG));
}

TEST_F(TreeWalkTest, ToleratesEntriesThatAppearAndDisappear) {
  const Mount memory = Mount::memory(dir_.path());
  mkdir(dir_.file("stays").c_str(), 0755);
  std::atomic<bool> stop{false};
  std::thread other([&] {
    while (!stop) {
      for (int i = 0; i < 20; ++i) {
        mkdir(dir_.file("goes" + std::to_string(i)).c_str(), 0755);
        dir_.write("goes" + std::to_string(i) + "/file", "");
      }
      for (int i = 0; i < 20; ++i) {
        unlink(dir_.file("goes" + std::to_string(i) + "/file").c_str());
        rmdir(dir_.file("goes" + std::to_string(i)).c_str());
      }
    }
  });
  for (int i = 0; i < 500; ++i) {
    const std::string lines = walk(dir_.path());
    EXPECT_EQ(fields(proxy_), kSuccess);
    EXPECT_NE(lines.find(" stays\n"), std::string::npos);
  }
  stop = true;
  other.join();
}

TEST_F(TreeWalkTest, SkipsEntriesThatWereRemovedOrReplaced) {
  ASSERT_EQ(symlink("target", dir_.file("link").c_str()), 0);
  const auto walkRefused = [&](int call, int error) {
    return inChild([&] {
      refuseCalls(call, error);
      const std::string lines = walk(dir_.path());
      return fields(proxy_) + ", " + std::to_string(paths(lines).size());
    });
  };
  for (const int error : {ENOENT, ENOTDIR, ELOOP}) {
    EXPECT_EQ(walkRefused(SYS_openat, error), std::string(kSuccess) + ", 1") << error;
    EXPECT_EQ(walkRefused(SYS_readlinkat, error), std::string(kSuccess) + ", 1") << error;
  }
  EXPECT_EQ(walkRefused(SYS_readlinkat, EINVAL), std::string(kSuccess) + ", 1") << "no link now";
  EXPECT_EQ(walkRefused(SYS_openat, EPERM), failureWith(EPERM) + ", 1");
  EXPECT_EQ(walkRefused(SYS_readlinkat, EIO), failureWith(EIO) + ", 1");
  EXPECT_EQ(walkRefused(SYS_getdents64, EIO), failureWith(EIO) + ", 1");
}

TEST_F(TreeWalkTest, ForgetsThePreviousWalk) {
  EXPECT_NE(walk(dir_.path()), "");
  EXPECT_EQ(walk(dir_.file("none")), "");
}

}  // namespace
}  // namespace zell::test
