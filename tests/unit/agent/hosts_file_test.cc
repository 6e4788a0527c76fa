// SPDX-License-Identifier: Apache-2.0
// The rewrite of the hosts file, and the log lines about its failures.
#include "agent/runel.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <functional>
#include <set>
#include <string>

#include <dlfcn.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include "base/unique_fd.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace zell::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

std::function<void()> g_onWrite;  // called with each written line

const std::string kEntry = "10.1.2.3 update-master\n";

class HostsServer : public Runel {
 public:
  HostsServer() : Runel("127.0.0.1", false, 0) {}
  using Runel::logError;
  using Runel::logWarning;
  using Runel::setEtcHosts;
};

class HostsFileTest : public ::testing::Test {
 protected:
  ~HostsFileTest() override {
    (void)umount2(path.c_str(), MNT_DETACH);  // unmounts the file system of a test
    (void)umount2(directory.path().c_str(), MNT_DETACH);
  }

  void write(const std::string& content) { (void)directory.write("hosts", content); }
  void rewrite() { server.setEtcHosts(path, "10.1.2.3"); }
  // The content after a successful rewrite.
  std::string rewritten(const std::string& content) {
    write(content);
    rewrite();
    EXPECT_THAT(log.entries(), IsEmpty());
    EXPECT_FALSE(exists(beside));
    return contentOf(path);
  }
  void mountMemory(const char* options) {
    ASSERT_EQ(mount("tmpfs", directory.path().c_str(), "tmpfs", 0, options), 0) << strerror(errno);
  }
  static bool exists(const std::string& name) {
    struct stat st {};
    return lstat(name.c_str(), &st) == 0;
  }
  static struct stat statOf(const std::string& name) {
    struct stat st {};
    EXPECT_EQ(lstat(name.c_str(), &st), 0) << name;
    return st;
  }
  static mode_t modeOf(const std::string& name) { return statOf(name).st_mode; }

  HostsServer server;
  TempDir directory;
  std::string path = directory.file("hosts");
  std::string beside = directory.file("hosts.new");
  LogCapture log;
};

TEST_F(HostsFileTest, LogsAnErrorWithTheTextOfErrno) {
  errno = ENOSPC;
  server.logError("100 %s of ", "a%n");
  EXPECT_THAT(log.entries(),
              ElementsAre(LogEntry{LOG_ERR, "(PID) 100 %s of a%n,No space left on device"}));
}

TEST_F(HostsFileTest, LogsAWarningWithoutTheTextOfErrno) {
  errno = ENOSPC;
  server.logWarning("100 %s of ", "a%n");
  EXPECT_THAT(log.entries(), ElementsAre(LogEntry{LOG_WARNING, "(PID) 100 %s of a%n"}));
}

TEST_F(HostsFileTest, AddsTheEntryAfterAllOthers) {
  EXPECT_EQ(rewritten("127.0.0.1 localhost\n10.0.0.9 printer\n"),
            "127.0.0.1 localhost\n10.0.0.9 printer\n" + kEntry);
}

TEST_F(HostsFileTest, ReplacesAnOlderEntryAndKeepsTheOrderOfTheOthers) {
  EXPECT_EQ(rewritten("# top\n127.0.0.1 localhost\n10.0.0.1 update-master\n\n::1 ip6-localhost\n"),
            "# top\n127.0.0.1 localhost\n\n::1 ip6-localhost\n" + kEntry);
}

TEST_F(HostsFileTest, ReplacesEveryOlderEntry) {
  EXPECT_EQ(rewritten("10.0.0.1 update-master\na b\n10.0.0.2 update-master\n"), "a b\n" + kEntry);
}

TEST_F(HostsFileTest, ChangesNothingTheSecondTime) {
  const std::string once = rewritten("127.0.0.1 localhost\n");
  EXPECT_EQ(rewritten(once), once);
}

TEST_F(HostsFileTest, DropsALineInWhichTheAliasBeginsALongerName) {
  EXPECT_EQ(rewritten("10.0.0.1 update-master.example update\n10.0.0.2 update-master2\n"), kEntry);
}

TEST_F(HostsFileTest, DropsALineInWhichTheAliasIsOneOfSeveralNamesOrInAComment) {
  EXPECT_EQ(rewritten("10.0.0.1 a update-master b\n# the update-master is here\n"), kEntry);
}

TEST_F(HostsFileTest, KeepsAFileOf64MebibytesWithALineOf16) {
  std::string content = std::string(16 << 20, 'x') + "\n";
  while (content.size() < 64 << 20) {
    content += "10.0.0.9 printer-with-a-long-name # and a comment that goes on for a while\n";
  }
  EXPECT_TRUE(rewritten(content) == content + kEntry);
}

TEST_F(HostsFileTest, KeepsALineWithoutABlankBeforeTheAlias) {
  const std::string kept =
      "update-master 10.0.0.1\n10.0.0.1\tupdate-master\n10.0.0.1 my-update-master\n"
      "10.0.0.1 Update-Master\n10.0.0.1 update-maste\n";
  EXPECT_EQ(rewritten(kept), kept + kEntry);
}

TEST_F(HostsFileTest, FillsAnEmptyFile) {
  EXPECT_EQ(rewritten(""), kEntry);
}

TEST_F(HostsFileTest, EndsALastLineThatHasNoNewline) {
  EXPECT_EQ(rewritten("127.0.0.1 localhost"), "127.0.0.1 localhost\n" + kEntry);
}

TEST_F(HostsFileTest, DropsALastEntryThatHasNoNewline) {
  EXPECT_EQ(rewritten("a b\n10.0.0.1 update-master"), "a b\n" + kEntry);
}

TEST_F(HostsFileTest, KeepsBlankLinesAtTheEnd) {
  EXPECT_EQ(rewritten("a b\n\n\n"), "a b\n\n\n" + kEntry);
}

TEST_F(HostsFileTest, KeepsCarriageReturns) {
  EXPECT_EQ(rewritten("127.0.0.1 localhost\r\n10.0.0.1 update-master\r\n\r\n"),
            "127.0.0.1 localhost\r\n\r\n" + kEntry);
}

TEST_F(HostsFileTest, KeepsZeroBytesAndFindsTheAliasBehindThem) {
  const std::string zeros("a\0b\n\0\n", 6);
  EXPECT_EQ(rewritten(zeros + std::string("x\0y update-master\n", 18)), zeros + kEntry);
}

TEST_F(HostsFileTest, KeepsALineOfAMegabyte) {
  const std::string line(1 << 20, 'x');
  EXPECT_EQ(rewritten("a b\n" + line + "\nc d\n"), "a b\n" + line + "\nc d\n" + kEntry);
}

TEST_F(HostsFileTest, DropsALineOfAMegabyteWithTheAliasAtItsEnd) {
  EXPECT_EQ(rewritten("a b\n" + std::string(1 << 20, 'x') + " update-master\nc d\n"),
            "a b\nc d\n" + kEntry);
}

TEST_F(HostsFileTest, CreatesAMissingFileWithTheLocalHost) {
  rewrite();
  EXPECT_EQ(contentOf(path), "127.0.0.1 localhost\n" + kEntry);
  EXPECT_FALSE(exists(beside));
  EXPECT_THAT(log.entries(),
              ElementsAre(LogEntry{LOG_WARNING, "(PID) setEtcHosts: cannot open " + path}));
}

TEST_F(HostsFileTest, SetsTheModeOfANewFileForAnyUmask) {
  for (const mode_t mask : {0U, 022U, 077U, 0777U}) {
    const mode_t before = umask(mask);
    rewrite();
    (void)umask(before);
    EXPECT_EQ(modeOf(path), S_IFREG | 0644U);
    (void)unlink(path.c_str());
  }
}

TEST_F(HostsFileTest, KeepsThePermissionBitsForAnyUmask) {
  const mode_t before = umask(077);
  for (const mode_t mode : {0600U, 0664U, 0644U, 0000U, 04755U}) {
    write("a b\n");
    ASSERT_EQ(chmod(path.c_str(), mode), 0);
    rewrite();
    EXPECT_EQ(modeOf(path), S_IFREG | mode);
  }
  (void)umask(before);
}

TEST_F(HostsFileTest, KeepsTheOwnerOfASetUserIdFile) {
  write("a b\n");
  ASSERT_EQ(chown(path.c_str(), 12, 34), 0);
  ASSERT_EQ(chmod(path.c_str(), 06640), 0);
  rewrite();
  EXPECT_EQ(statOf(path).st_uid, 12U);
  EXPECT_EQ(statOf(path).st_gid, 34U);
  EXPECT_EQ(modeOf(path), S_IFREG | 06640U);
}

// A user without access to the old file must not read its copy either.
TEST_F(HostsFileTest, HidesTheNewFileFromOtherUsersWhileItIsWritten) {
  const mode_t before = umask(0);
  for (const mode_t mode : {0600U, 0640U, 0644U, 0666U}) {
    write(std::string(100000, 'x') + "\na b\n");
    ASSERT_EQ(chown(path.c_str(), 12, 34), 0);
    ASSERT_EQ(chmod(path.c_str(), mode), 0);
    std::set<mode_t> seen;
    g_onWrite = [&] { seen.insert(modeOf(beside)); };
    rewrite();
    g_onWrite = nullptr;
    EXPECT_THAT(seen, ElementsAre(S_IFREG | 0600U));
    EXPECT_EQ(modeOf(path), S_IFREG | mode);
    EXPECT_EQ(statOf(path).st_uid, 12U);
    EXPECT_EQ(statOf(path).st_gid, 34U);
  }
  (void)umask(before);
}

// Otherwise the owner of the old file could write to it.
TEST_F(HostsFileTest, OwnsTheNewFileWhileItIsWritten) {
  write("a b\n");
  ASSERT_EQ(chown(path.c_str(), 12, 34), 0);
  std::set<uid_t> seen;
  g_onWrite = [&] { seen.insert(statOf(beside).st_uid); };
  rewrite();
  g_onWrite = nullptr;
  EXPECT_THAT(seen, ElementsAre(geteuid()));
}

TEST_F(HostsFileTest, ReplacesTheFileSoThatReadersKeepTheOldOne) {
  write("a b\n");
  const ino_t before = statOf(path).st_ino;
  ASSERT_EQ(link(path.c_str(), directory.file("reader").c_str()), 0);
  rewrite();
  EXPECT_NE(statOf(path).st_ino, before);
  EXPECT_EQ(contentOf(directory.file("reader")), "a b\n");
}

TEST_F(HostsFileTest, ReplacesALinkByAFileAndKeepsItsTarget) {
  const std::string target = directory.write("target", "a b\n");
  ASSERT_EQ(chmod(target.c_str(), 0600), 0);
  ASSERT_EQ(symlink("target", path.c_str()), 0);
  rewrite();
  EXPECT_EQ(modeOf(path), S_IFREG | 0600U);
  EXPECT_EQ(contentOf(path), "a b\n" + kEntry);
  EXPECT_EQ(contentOf(target), "a b\n");
}

TEST_F(HostsFileTest, ReplacesADanglingLinkAsAMissingFile) {
  ASSERT_EQ(symlink("nowhere", path.c_str()), 0);
  rewrite();
  EXPECT_EQ(contentOf(path), "127.0.0.1 localhost\n" + kEntry);
  EXPECT_FALSE(exists(directory.file("nowhere")));
}

TEST_F(HostsFileTest, DoesNotBlockOnAFifoInPlaceOfTheFile) {
  ASSERT_EQ(mkfifo(path.c_str(), 0640), 0);
  rewrite();
  EXPECT_EQ(modeOf(path), S_IFREG | 0640U);
  EXPECT_EQ(contentOf(path), kEntry);
}

TEST_F(HostsFileTest, DoesNotReplaceADirectory) {
  ASSERT_EQ(mkdir(path.c_str(), 0755), 0);
  rewrite();
  EXPECT_THAT(log.entries(), ElementsAre(LogEntry{LOG_ERR, "(PID) setEtcHosts: error reading " +
                                                               path + ",Is a directory"}));
  EXPECT_EQ(modeOf(path), S_IFDIR | 0755U);
  EXPECT_FALSE(exists(beside));
}

TEST_F(HostsFileTest, RemovesTheStaleFileOfAnInterruptedRewrite) {
  (void)directory.write("hosts.new", "half a li");
  ASSERT_EQ(chmod(beside.c_str(), 0444), 0);
  EXPECT_EQ(rewritten("a b\n"), "a b\n" + kEntry);
}

TEST_F(HostsFileTest, DoesNotFollowALinkInPlaceOfTheNewFile) {
  const std::string victim = directory.write("victim", "precious");
  ASSERT_EQ(symlink(victim.c_str(), beside.c_str()), 0);
  EXPECT_EQ(rewritten("a b\n"), "a b\n" + kEntry);
  EXPECT_EQ(contentOf(victim), "precious");
}

TEST_F(HostsFileTest, DoesNotWriteToAHardLinkInPlaceOfTheNewFile) {
  const std::string victim = directory.write("victim", "precious");
  ASSERT_EQ(link(victim.c_str(), beside.c_str()), 0);
  EXPECT_EQ(rewritten("a b\n"), "a b\n" + kEntry);
  EXPECT_EQ(contentOf(victim), "precious");
}

TEST_F(HostsFileTest, DoesNotBlockOnAFifoInPlaceOfTheNewFile) {
  ASSERT_EQ(mkfifo(beside.c_str(), 0600), 0);
  EXPECT_EQ(rewritten("a b\n"), "a b\n" + kEntry);
}

TEST_F(HostsFileTest, FailsWhenADirectoryIsInPlaceOfTheNewFile) {
  write("a b\n");
  ASSERT_EQ(mkdir(beside.c_str(), 0755), 0);
  rewrite();
  EXPECT_THAT(log.entries(), ElementsAre(LogEntry{LOG_ERR, "(PID) setEtcHosts: cannot open " +
                                                               beside + ",Is a directory"}));
  EXPECT_EQ(contentOf(path), "a b\n");
  EXPECT_TRUE(exists(beside));
}

TEST_F(HostsFileTest, LogsBothWhenNeitherFileCanBeOpened) {
  const std::string missing = directory.file("none/hosts");
  server.setEtcHosts(missing, "10.1.2.3");
  EXPECT_THAT(log.entries(),
              ElementsAre(LogEntry{LOG_WARNING, "(PID) setEtcHosts: cannot open " + missing},
                          LogEntry{LOG_ERR, "(PID) setEtcHosts: cannot open " + missing +
                                                ".new,No such file or directory"}));
}

TEST_F(HostsFileTest, LeavesTheFileUnchangedOnAReadOnlyFileSystem) {
  mountMemory("size=64k");
  write("a b\n");
  ASSERT_EQ(mount("tmpfs", directory.path().c_str(), "tmpfs", MS_REMOUNT | MS_RDONLY, ""), 0);
  rewrite();
  EXPECT_THAT(log.entries(), ElementsAre(LogEntry{LOG_ERR, "(PID) setEtcHosts: cannot open " +
                                                               beside + ",Read-only file system"}));
  EXPECT_EQ(contentOf(path), "a b\n");
}

TEST_F(HostsFileTest, LeavesTheFileUnchangedOnAFullFileSystem) {
  mountMemory("size=8k");
  write("a b\n");
  (void)directory.write("filler", std::string(4096, 'x'));
  rewrite();
  EXPECT_THAT(log.entries(),
              ElementsAre(LogEntry{LOG_ERR, "(PID) setEtcHosts: error writing " + beside +
                                                ",No space left on device"}));
  EXPECT_EQ(contentOf(path), "a b\n");
  EXPECT_FALSE(exists(beside));
}

// After the failed read, writing the buffered rest fails too. Only the first error is logged.
TEST_F(HostsFileTest, LogsTheFirstOfTwoErrors) {
  mountMemory("size=8k");
  ASSERT_EQ(mkfifo(path.c_str(), 0644), 0);
  const UniqueFd writer(open(path.c_str(), O_RDWR | O_CLOEXEC));
  ASSERT_EQ(::write(writer.get(), "a b\n", 4), 4);
  (void)directory.write("filler", std::string(8192, 'x'));
  rewrite();
  EXPECT_THAT(log.entries(),
              ElementsAre(LogEntry{LOG_ERR, "(PID) setEtcHosts: error reading " + path +
                                                ",Resource temporarily unavailable"}));
}

TEST_F(HostsFileTest, LeavesALongFileUnchangedWhenTheFileSystemFillsUp) {
  mountMemory("size=160k");
  std::string lines;
  while (lines.size() < 100000) {
    lines += "10.0.0.1 some-host-or-other\n";
  }
  write(lines);
  rewrite();
  EXPECT_THAT(log.entries(),
              ElementsAre(LogEntry{LOG_ERR, "(PID) setEtcHosts: error writing " + beside +
                                                ",No space left on device"}));
  EXPECT_EQ(contentOf(path), lines);
  EXPECT_FALSE(exists(beside));
}

TEST_F(HostsFileTest, LeavesAMountPointUnchanged) {
  write("below\n");
  const std::string mounted = directory.write("mounted", "a b\n");
  ASSERT_EQ(mount(mounted.c_str(), path.c_str(), "none", MS_BIND, nullptr), 0);
  rewrite();
  EXPECT_THAT(log.entries(),
              ElementsAre(LogEntry{LOG_ERR, "(PID) setEtcHosts: cannot rename " + beside + " to " +
                                                path + ",Device or resource busy"}));
  EXPECT_EQ(contentOf(path), "a b\n");
  EXPECT_FALSE(exists(beside));
}

TEST_F(HostsFileTest, LeavesTheFileUnchangedWhenOutOfDescriptors) {
  write("a b\n");
  rlimit before{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
  const rlimit none{0, before.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
  rewrite();
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
  EXPECT_THAT(log.entries(),
              ElementsAre(LogEntry{LOG_WARNING, "(PID) setEtcHosts: cannot open " + path},
                          LogEntry{LOG_ERR, "(PID) setEtcHosts: cannot open " + beside +
                                                ",Too many open files"}));
  EXPECT_EQ(contentOf(path), "a b\n");
}

TEST_F(HostsFileTest, LeavesNoDescriptorOpen) {
  const int before = dup(0);
  ASSERT_GE(before, 0);
  (void)close(before);
  (void)rewritten("a b\n");
  ASSERT_EQ(unlink(path.c_str()), 0);
  rewrite();
  ASSERT_EQ(mkdir(beside.c_str(), 0755), 0);
  rewrite();
  const int after = dup(0);
  (void)close(after);
  EXPECT_EQ(after, before);
}

}  // namespace
}  // namespace zell::test

// Replaces the function of the C library at link time.
extern "C" size_t fwrite(const void* data, size_t size, size_t count, FILE* out) {
  if (zell::test::g_onWrite) {
    zell::test::g_onWrite();
  }
  using Write = size_t (*)(const void*, size_t, size_t, FILE*);
  static const auto kNext = reinterpret_cast<Write>(dlsym(RTLD_NEXT, "fwrite"));
  return kNext(data, size, count, out);
}
