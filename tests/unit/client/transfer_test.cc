// SPDX-License-Identifier: Apache-2.0
// Push, sync and pull against a device with prepared answers.
#include <cerrno>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <runel/transfer.h>

#include "client/core/sha256.h"
#include "client/transfer/hidden_paths.h"
#include "drivers.h"
#include "support/temp_dir.h"
#include "unit/client/prepared_device.h"

namespace runel {
namespace {

using Strings = std::vector<std::string>;
using zell::test::contentOf;

constexpr std::size_t kBlock = 65536;
// The owner and group of the first file in an archive, after the two blocks for its exact time.
constexpr std::size_t kOwnerInTar = 2 * 512 + 108;

std::string sumLine(const std::string& content) {
  Sha256 hash;
  hash.add(content);
  return hash.finish() + "  name\n";
}

// The part of the target /t/b.
const char* partOfB() {
  static const std::string path = partPath("/t/b");
  return path.c_str();
}

// Without resuming, it has its own directory.
std::string directoryOfB() {
  return partDirectoryPath("/t/b");
}

std::string ownPartOfB() {
  return directoryOfB() + "/part";
}

class TransferTest : public ::testing::Test {
 protected:
  TransferTest() { options.setMemory(2 * kBlock); }

  std::string file(const std::string& name, const std::string& content) {
    const std::string path = here.write(name, content);
    const timespec times[2] = {{7, 8}, {7, 8}};
    EXPECT_EQ(chmod(path.c_str(), 0644) + utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
    return path;
  }
  AsyncTransfer::Done keep() {
    return [this](const TransferReport& done) {
      EXPECT_FALSE(report);
      report = done;
    };
  }
  void push(const Strings& paths, const std::string& target) {
    transfer = AsyncTransfer::push(device.client(), *PushSources::scan(paths, true), target,
                                   options, keep());
  }
  void sync() {
    transfer = AsyncTransfer::sync(device.client(), *PushSources::scan({here.file("tree")}, true),
                                   "/t", options, keep());
    finish();
  }
  void pull(const std::string& source, const std::string& target) {
    transfer = AsyncTransfer::pull(device.client(), {source}, target, options, keep());
  }
  void runUntil(const test::Done& done) { ASSERT_TRUE(test::runUntil(loop, done)); }
  void finish() {
    runUntil([this] { return report.has_value(); });
  }

  zell::test::TempDir here;
  Loop loop;
  PreparedDevice device{loop};
  TransferOptions options;
  std::optional<TransferReport> report;
  std::unique_ptr<AsyncTransfer> transfer;
};

class PushTest : public TransferTest {
 protected:
  // A file of three pieces, and the device's answers to a push of it.
  std::string largeFile() {
    content = std::string(kBlock, 'x') + std::string(kBlock, 'y') + "end";
    const std::string path = file("b", content);
    for (const std::string& part : {std::string(partOfB()), ownPartOfB()}) {
      device.succeed("stat " + part, PreparedDevice::stat("0100600", content.size()));
    }
    return path;
  }
  std::string content;
};

TEST_F(PushTest, SendsASmallAndALargeFileByTheseRequests) {
  options.setResume(false);
  const std::string part = ownPartOfB();
  push({file("a", "hello"), largeFile()}, "/t");
  finish();
  EXPECT_TRUE(report->ok());
  EXPECT_EQ(report->files(), 2U);
  EXPECT_EQ(report->bytes(), 2 * kBlock + 8);
  EXPECT_EQ(device.requests(), (Strings{
                                   "stat /t",
                                   "fileexists /t",
                                   "exec mkdir -p -- /t",
                                   "write /t/a hello",
                                   "read /proc/meminfo",
                                   "read /proc/self/mountinfo",
                                   "exec rm -r -f -- " + directoryOfB(),
                                   "exec mkdir -m 0700 -- " + directoryOfB(),
                                   "write " + part + " ",
                                   "stat " + part,
                                   "exec chmod 0600 -- " + part,
                                   "append " + part + " (65536 bytes)",
                                   "append " + part + " (65536 bytes)",
                                   "append " + part + " end",
                                   "stat " + part,
                                   "exec chmod 0644 -- " + part,
                                   "exec touch -c -d @7.000000008 -- " + part,
                                   "rename " + part + " /t/b",
                                   "exec rm -r -f -- " + directoryOfB(),
                                   "exec chmod 0644 -- /t/a",
                                   "exec touch -c -d @7.000000008 -- /t/a",
                               }));
}

TEST_F(PushTest, LooksAtTheTargetOfASingleFileOnce) {
  push({file("a", "hello")}, "/t/b");
  finish();
  EXPECT_EQ(device.requests().at(0), "stat /t/b");
  EXPECT_EQ(device.requests().at(1), "lstat /t/b");
  EXPECT_EQ(device.count("lstat"), 1U);
}

TEST_F(PushTest, LooksAtTheTargetOfASingleFileInADirectory) {
  device.succeed("stat /t", PreparedDevice::stat("0040755", 0));
  device.succeed("lstat /t", PreparedDevice::stat("0040755", 0));
  push({file("a", "hello")}, "/t");
  finish();
  EXPECT_TRUE(report->ok());
  EXPECT_EQ(device.count("lstat /t/a"), 1U);
  EXPECT_EQ(device.count("write /t/a hello"), 1U);
}

// Content of ten pieces, for which one byte stands in its compressed form.
class PackedPushTest : public PushTest {
 protected:
  PackedPushTest() {
    content = std::string(10 * kBlock, 'x');
    options.setResume(false).setCompression(
        [](std::string_view bytes) { return std::string(bytes.substr(0, 1)); }, true);
    device.succeed("stat " + ownPartOfB(), PreparedDevice::stat("0100600", content.size()));
  }
  const std::string packed = ownPartOfB() + ".gz";
};

TEST_F(PackedPushTest, CompressesEachPieceIfToldToTryOnAnyLine) {
  push({file("b", content)}, "/t/b");
  finish();
  EXPECT_TRUE(report->ok());
  EXPECT_EQ(report->bytes(), content.size());
  const std::size_t count = device.count("write " + packed + " x");
  EXPECT_GT(count, 0U);
  EXPECT_EQ(report->sentBytes(), content.size() - count * (kBlock - 1));
  EXPECT_EQ(device.count("exec /bin/sh -c gzip -dc"), count);
  EXPECT_EQ(count, 10U);
  EXPECT_EQ(device.count("append " + ownPartOfB() + " ("), 0U);
  EXPECT_EQ(device.count("unlink " + packed), 1U);
}

TEST_F(PackedPushTest, IsAPlainPushWithoutGzipOnTheDevice) {
  device.fail("exec /bin/sh -c (", ENOENT);  // the longest script
  push({file("b", content)}, "/t/b");
  finish();
  EXPECT_TRUE(report->ok());
  EXPECT_EQ(report->sentBytes(), content.size());
  EXPECT_EQ(device.count("write " + packed), 0U);
}

TEST_F(PackedPushTest, SendsPiecesThatDoNotBecomeSmallerAsTheyAre) {
  options.setCompression([](std::string_view bytes) { return std::string(bytes); }, true);
  push({file("b", content)}, "/t/b");
  finish();
  EXPECT_TRUE(report->ok());
  EXPECT_EQ(device.count("append " + ownPartOfB() + " ("), 10U);
}

TEST_F(PackedPushTest, RemovesItsFilesWhenTheDeviceCannotUnpack) {
  device.fail("exec /bin/sh -c gzip -dc", ENOSPC);
  push({file("b", content)}, "/t/b");
  finish();
  EXPECT_FALSE(report->ok());
  EXPECT_GT(device.count("unlink " + packed), 0U);
  EXPECT_EQ(device.requests().back(), "exec rm -r -f -- " + directoryOfB());
  EXPECT_EQ(device.count("rename"), 0U);
}

// Pieces of 256 KiB: eight for gzip, then one for bzip2. What follows depends on measured times.
class Bzip2PushTest : public PackedPushTest {
 protected:
  Bzip2PushTest() {
    options.setMemory(4 * kMebibyte).setBzip2([](std::string_view bytes) {
      return "b" + std::string(bytes.substr(0, 1));
    });
    content = std::string(4 * kMebibyte, 'x');
    device.succeed("stat " + ownPartOfB(), PreparedDevice::stat("0100600", content.size()));
  }
  static constexpr std::size_t kMebibyte = 1048576;
};

TEST_F(Bzip2PushTest, TriesBothPrograms) {
  device.succeed("exec /bin/sh -c (", "bunzip2\n");
  push({file("b", content)}, "/t/b");
  finish();
  EXPECT_TRUE(report->ok());
  EXPECT_EQ(report->bytes(), content.size());
  EXPECT_GE(device.count("write " + packed + " x"), 7U);
  const std::size_t count = device.count("write " + packed + " bx");
  EXPECT_GT(count, 0U);
  EXPECT_EQ(device.count("exec /bin/sh -c bunzip2 -c"), count);
}

TEST_F(Bzip2PushTest, UsesGzipForPiecesThatBzip2DoesNotMakeSmaller) {
  options.setBzip2([](std::string_view bytes) { return std::string(bytes); });
  device.succeed("exec /bin/sh -c (", "bunzip2\n");
  push({file("b", content)}, "/t/b");
  finish();
  EXPECT_TRUE(report->ok());
  EXPECT_LE(device.count("append " + ownPartOfB() + " ("), 1U) << "one to compare with";
  EXPECT_GE(device.count("exec /bin/sh -c gzip -dc"), 15U);
  EXPECT_EQ(device.count("exec /bin/sh -c bunzip2 -c"), 0U);
}

TEST_F(Bzip2PushTest, UsesGzipAloneWithoutBunzip2OnTheDevice) {
  for (const char* answer : {"", "bunzip", "sh: bunzip2: not found\n", "bunzip2\nbunzip2\n"}) {
    device.succeed("exec /bin/sh -c (", answer);
    push({file("b", content)}, "/t/b");
    finish();
    EXPECT_TRUE(report->ok());
    report.reset();
  }
  EXPECT_GT(device.count("exec /bin/sh -c gzip -dc"), 0U);
  EXPECT_EQ(device.count("exec /bin/sh -c bunzip2 -c"), 0U);
}

TEST_F(Bzip2PushTest, NamesTheProgramThatFailed) {
  device.succeed("exec /bin/sh -c (", "bunzip2\n");
  device.fail("exec /bin/sh -c bunzip2 -c", ENOSPC);
  push({file("b", content)}, "/t/b");
  finish();
  ASSERT_FALSE(report->ok());
  EXPECT_THAT(report->error()->text(), ::testing::HasSubstr("bunzip2: "));
  EXPECT_EQ(device.count("rename"), 0U);
}

TEST_F(PackedPushTest, AsksForBunzip2OnlyWithBzip2) {
  device.succeed("exec /bin/sh -c (", "bunzip2\n");
  content = std::string(5 << 20, 'x');
  options.setMemory(4 << 20);
  push({file("b", content)}, "/t/b");
  finish();
  EXPECT_EQ(device.count("exec /bin/sh -c bunzip2 -c"), 0U);
}

TEST_F(PackedPushTest, RemovesTheCompressedFileOfAnInterruptedTransfer) {
  std::optional<Request> cleanUp;
  device.onRequest("write " + packed, [&] { cleanUp = transfer->cleanUp(); });
  push({file("b", content)}, "/t/b");
  finish();
  ASSERT_TRUE(cleanUp);
  EXPECT_EQ(cleanUp->words(), (Strings{"exec", "rm", "-r", "-f", "--", directoryOfB()}));
  EXPECT_FALSE(transfer->cleanUp());
}

TEST_F(PackedPushTest, RemovesTwoFilesWhenTheDeviceCannotCreateADirectory) {
  device.fail("exec mkdir", ENOENT);
  const std::string inPlace = std::string(partOfB()) + ".gz";
  std::optional<Request> cleanUp;
  device.onRequest("write " + inPlace, [&] { cleanUp = transfer->cleanUp(); });
  push({file("b", content)}, "/t/b");
  finish();
  ASSERT_TRUE(cleanUp);
  EXPECT_EQ(cleanUp->words(), (Strings{"exec", "rm", "-f", "--", inPlace, partOfB()}));
}

TEST_F(PushTest, SendsManySmallFilesAsAnArchive) {
  Strings paths;
  for (const char* name : {"a", "b", "c", "d", "e", "f", "g", "h"}) {
    paths.push_back(file(name, name));
  }
  push(paths, "/t");
  finish();
  EXPECT_TRUE(report->ok());
  const std::string staging = stagingPath("/t/a");
  EXPECT_EQ(device.count("exec tar -x -p -f " + staging + "/archive -C " + staging), 1U);
  EXPECT_EQ(device.count("rename " + staging + "/7 /t/h"), 1U);
  EXPECT_EQ(device.requests().back(), "exec rm -r -f -- " + staging);
  EXPECT_EQ(report->files(), 8U);
  ASSERT_EQ(device.longWords().size(), 1U);
  EXPECT_EQ(device.longWords()[0].substr(kOwnerInTar, 16), std::string("0000000\0000000000", 16));
}

TEST_F(PushTest, KeepsTheGroupOfATarget) {
  const std::string path = largeFile();
  std::string there = PreparedDevice::stat("0100644", 5);
  there.replace(there.find("gid=0"), 5, "gid=7");
  device.succeed("lstat /t/b", there);
  push({path}, "/t/b");
  finish();
  EXPECT_TRUE(report->ok());
  EXPECT_EQ(device.count(std::string("exec chown 0:7 -- ") + partOfB()), 1U);
}

// An archive has names relative to the parent of its first directory.
TEST_F(PushTest, DirectoriesOfARelativeTargetAreNotSetByTar) {
  for (const char* name : {"a", "b", "c", "d", "e", "f", "g", "h", "i"}) {
    std::filesystem::create_directories(here.file(std::string("tree/") + name));
  }
  options.setRecursive(true);
  push({here.file("tree")}, "t");
  finish();
  EXPECT_TRUE(report->ok());
  EXPECT_EQ(device.count("exec tar"), 0U);
  EXPECT_EQ(device.count("exec chmod"), 1U);
}

TEST_F(PushTest, ContinuesAfterAPartWithTheSameContent) {
  const std::string path = largeFile();
  // The part has one piece at first, and the whole file at the end.
  device.succeedOnce(std::string("stat ") + partOfB(), PreparedDevice::stat("0100600", kBlock));
  device.succeed("exec sha256sum", sumLine(content.substr(0, kBlock)));
  push({path}, "/t/b");
  finish();
  EXPECT_TRUE(report->ok());
  EXPECT_EQ(report->resumedAt(), kBlock);
  EXPECT_EQ(report->bytes(), kBlock + 3);
  EXPECT_EQ(device.count("append"), 2U);
  EXPECT_EQ(device.count("write"), 0U);
}

TEST_F(PushTest, SendsAllAgainAfterAPartOfAnotherFile) {
  const std::string path = largeFile();
  device.succeed("exec sha256sum", sumLine("another"));
  push({path}, "/t/b");
  finish();
  EXPECT_TRUE(report->ok());
  EXPECT_FALSE(report->resumedAt());
  EXPECT_EQ(device.count("append"), 3U);
}

TEST_F(PushTest, GivesUpOnAPartThatAnotherClientWritesToo) {
  const std::string path = largeFile();
  device.succeed(std::string("stat ") + partOfB(), PreparedDevice::stat("0100600", 5));
  push({path, file("c", "small")}, "/t");
  finish();
  EXPECT_TRUE(report->complete());
  EXPECT_EQ(report->error()->cause(), Cause::incomplete);
  EXPECT_EQ(device.count("append"), 6U) << "sent twice";
  EXPECT_EQ(device.count(std::string("unlink ") + partOfB()), 1U);
  EXPECT_EQ(report->files(), 1U) << "the others continue";
}

TEST_F(PushTest, EndsWhenTheConnectionIsLost) {
  const std::string path = largeFile();
  device.hangUpAt("append");
  push({path}, "/t/b");
  finish();
  EXPECT_FALSE(report->complete());
  EXPECT_EQ(report->error()->kind(), Kind::link);
  EXPECT_EQ(report->error()->outcome(), Outcome::unknown);
  EXPECT_EQ(device.count("append"), 1U);
}

TEST_F(PushTest, ReportsAnEarlierFailureBesideTheLostConnection) {
  device.fail("write /t/a", EACCES);
  device.hangUpAt("write /t/b");
  push({file("a", "1"), file("b", "2")}, "/t");
  finish();
  EXPECT_EQ(report->error()->kind(), Kind::link);
  EXPECT_EQ(report->warnings(), Strings{"/t/a: Permission denied"});
}

TEST_F(PushTest, IsNotSentWhenTheDeviceCannotBeReached) {
  AsyncDevice unreachable(loop, Address("127.0.0.1", 9));
  transfer = AsyncTransfer::push(unreachable, *PushSources::scan({file("a", "1")}, false), "/t",
                                 options, keep());
  EXPECT_FALSE(report) << "never within the call";
  finish();
  EXPECT_FALSE(report->complete());
  EXPECT_EQ(report->error()->outcome(), Outcome::notSent);
}

TEST_F(PushTest, ReportsAChecksumThatDiffers) {
  options.setChecksum(true);
  device.succeed("exec sha256sum", sumLine("one") + sumLine("another"));
  push({file("a", "one"), file("b", "two")}, "/t");
  finish();
  EXPECT_TRUE(report->complete());
  EXPECT_FALSE(report->ok());
  EXPECT_EQ(report->error()->cause(), Cause::checksum);
  EXPECT_EQ(report->error()->text(), "/t/b: checksum mismatch");
}

TEST_F(PushTest, ReportsTheFirstFailureAsItsErrorAndTheOthersAsWarnings) {
  device.fail("write", EACCES);
  push({file("a", "1"), file("b", "2")}, "/t");
  finish();
  EXPECT_EQ(report->error()->text(), "/t/a: Permission denied");
  EXPECT_EQ(report->error()->outcome(), Outcome::answered);
  EXPECT_EQ(report->warnings(), Strings{"/t/b: Permission denied"});
  EXPECT_FALSE(report->partial());
}

TEST_F(PushTest, IsPartialWithoutModes) {
  device.fail("exec chmod", ENOENT);
  push({file("a", "1")}, "/t/a");
  finish();
  EXPECT_FALSE(report->error());
  EXPECT_TRUE(report->partial());
  EXPECT_EQ(report->warnings(), Strings{"modes not preserved: chmod: No such file or directory"});
}

TEST_F(PushTest, RemovesWhatAnUnfinishedTransferHasLeft) {
  options.setResume(false);
  std::optional<Request> cleanUp;
  device.onRequest("append", [&] { cleanUp = transfer->cleanUp(); });
  push({largeFile()}, "/t/b");
  EXPECT_FALSE(transfer->cleanUp());
  finish();
  ASSERT_TRUE(cleanUp);
  EXPECT_EQ(cleanUp->words(), (Strings{"exec", "rm", "-r", "-f", "--", directoryOfB()}));
  EXPECT_FALSE(transfer->cleanUp());
}

TEST_F(PushTest, RemovesThePartWhenTheDeviceCannotCreateADirectory) {
  options.setResume(false);
  device.fail("exec mkdir", ENOENT);
  std::optional<Request> cleanUp;
  device.onRequest("append", [&] { cleanUp = transfer->cleanUp(); });
  push({largeFile()}, "/t/b");
  finish();
  EXPECT_TRUE(report->ok());
  ASSERT_TRUE(cleanUp);
  EXPECT_EQ(cleanUp->words(), (Strings{"unlink", partOfB()}));
  EXPECT_EQ(device.count(std::string("rename ") + partOfB() + " /t/b"), 1U);
  EXPECT_FALSE(transfer->cleanUp());
}

TEST_F(PushTest, KeepsAPartForResuming) {
  std::optional<Request> cleanUp = Request({"none"});
  device.onRequest("append", [&] { cleanUp = transfer->cleanUp(); });
  push({largeFile()}, "/t/b");
  finish();
  EXPECT_FALSE(cleanUp);
}

TEST_F(PushTest, MayBeDestroyedWhileRequestsArePending) {
  device.onRequest("append", [this] { transfer.reset(); });
  push({largeFile()}, "/t/b");
  runUntil([this] { return !transfer && device.client().pending() == 0; });
  EXPECT_FALSE(report);
  EXPECT_EQ(device.count("rename"), 0U);
}

TEST_F(PushTest, MayBeDestroyedByItsHandler) {
  bool done = false;
  transfer = AsyncTransfer::push(device.client(), *PushSources::scan({file("a", "1")}, false), "/t",
                                 options, [&](const TransferReport&) {
                                   transfer.reset();
                                   done = true;
                                 });
  runUntil([&] { return done; });
}

TEST_F(TransferTest, SyncSendsOnlyDifferences) {
  options.setDelete(true);
  EXPECT_EQ(mkdir(here.file("tree").c_str(), 0755), 0);
  file("tree/new", "new");
  file("tree/same", "same");
  device.succeed(
      "walktree /t/.",
      "d 0755 0 0 0 0 .\n- 0644 0 0 4 7 same\nd 0755 0 0 0 0 old\n- 0644 0 0 4 7 old/x\n");
  transfer = AsyncTransfer::sync(device.client(), *PushSources::scan({here.file("tree")}, true),
                                 "/t", options, keep());
  finish();
  EXPECT_TRUE(report->ok());
  EXPECT_EQ(report->removed(), 1U);
  EXPECT_EQ(device.count("exec rm -r -f -- /t/old"), 1U);
  EXPECT_EQ(device.count("write"), 1U);
  EXPECT_EQ(device.count("write /t/new new"), 1U);
}

// A tree of three files of 4 bytes: the same time and content on both sides, the same time, the
// same content.
TEST_F(TransferTest, SyncWithChecksumsSendsFilesOfOtherContent) {
  options.setChecksum(true);
  EXPECT_EQ(mkdir(here.file("tree").c_str(), 0755), 0);
  file("tree/both", "both");
  file("tree/time", "here");
  file("tree/what", "what");
  device.succeed("walktree /t/.",
                 "d 0755 0 0 0 0 .\n- 0644 0 0 4 7 both\n- 0644 0 0 4 7 time\n"
                 "- 0644 0 0 4 9 what\n");
  device.succeed("exec sha256sum -- /t/both", sumLine("both") + sumLine("away") + sumLine("what"));
  device.succeed("exec sha256sum -- /t/time", sumLine("here"));
  sync();
  EXPECT_TRUE(report->ok());
  EXPECT_EQ(report->files(), 1U);
  EXPECT_EQ(device.count("write"), 1U);
  EXPECT_EQ(device.count("write /t/time here"), 1U);
  EXPECT_EQ(device.count("exec touch -c -d @7.000000008 -- /t/time /t/what"), 1U);
}

TEST_F(TransferTest, SyncSendsFilesWhoseChecksumsAreUnknown) {
  options.setChecksum(true);
  EXPECT_EQ(mkdir(here.file("tree").c_str(), 0755), 0);
  file("tree/a", "here");
  device.succeed("walktree /t/.", "d 0755 0 0 0 0 .\n- 0644 0 0 4 7 a\n");
  device.fail("exec sha256sum", ENOENT);
  sync();
  EXPECT_EQ(device.count("write /t/a here"), 1U);
  EXPECT_EQ(report->warnings(),
            Strings{"checksums not verified: sha256sum: No such file or directory"});
}

TEST_F(TransferTest, SyncComparesNoChecksumsOfFilesOfOtherSize) {
  options.setChecksum(true);
  EXPECT_EQ(mkdir(here.file("tree").c_str(), 0755), 0);
  file("tree/a", "here");
  device.succeed("walktree /t/.", "d 0755 0 0 0 0 .\n- 0644 0 0 5 7 a\n");
  device.succeed("exec sha256sum", sumLine("here"));
  sync();
  EXPECT_TRUE(report->ok());
  EXPECT_EQ(device.count("write /t/a here"), 1U);
  EXPECT_EQ(device.count("exec sha256sum"), 1U) << "after the transfer";
}

TEST_F(TransferTest, SyncEndsWithoutTheTreeOfTheDevice) {
  device.fail("walktree", EACCES);
  transfer = AsyncTransfer::sync(device.client(), *PushSources::scan({here.path()}, true), "/t",
                                 options, keep());
  finish();
  EXPECT_FALSE(report->complete());
  EXPECT_EQ(report->error()->number(), EACCES);
  EXPECT_EQ(device.requests().size(), 2U);
}

TEST_F(TransferTest, PullSkipsAPathThatLeadsOut) {
  options.setRecursive(true);
  device.succeed("stat /s", PreparedDevice::stat("0040755", 0));
  device.succeed("walktree /s/.",
                 "d 0755 0 0 0 0 .\n- 0644 0 0 4 7 ../evil\n- 0644 0 0 4 7 /evil\n");
  pull("/s", here.file("copy"));
  finish();
  EXPECT_FALSE(report->error());
  EXPECT_TRUE(report->partial());
  EXPECT_EQ(report->warnings(), (Strings{"/s/../evil: skipped, its path leads out of the directory",
                                         "/evil: skipped, its path leads out of the directory"}));
  EXPECT_EQ(device.count("read"), 0U);
}

TEST_F(TransferTest, PullSkipsALinkToAnImpossiblePathAndATopThatIsNotADirectory) {
  options.setRecursive(true);
  device.succeed("stat /s", PreparedDevice::stat("0040755", 0));
  device.succeed("walktree /s/.", "l 0777 0 0 0 0 . -> /etc\nl 0777 0 0 0 0 a -> b\\x00c\n");
  pull("/s", here.file("copy"));
  finish();
  EXPECT_EQ(report->warnings(),
            (Strings{"/s: skipped, the top of a directory tree is not a directory",
                     "/s/a: skipped, a link to an impossible path"}));
  EXPECT_TRUE(std::filesystem::is_empty(here.file("copy")));
  EXPECT_FALSE(std::filesystem::is_symlink(here.file("copy")));
}

TEST_F(TransferTest, PullWritesToASubdirectoryOfItsTarget) {
  options.setSubdirectory("gw-1");
  device.succeed("stat /a", PreparedDevice::stat("0100640", 5));
  device.succeed("read /a", "hello");
  pull("/a", here.file("all"));
  finish();
  EXPECT_TRUE(report->ok());
  EXPECT_EQ(contentOf(here.file("all/gw-1/a")), "hello");
}

TEST_F(TransferTest, PullDoesNotFollowALinkInPlaceOfItsSubdirectory) {
  std::filesystem::create_directories(here.file("outside"));
  std::filesystem::create_symlink("outside", here.file("gw-1"));
  options.setSubdirectory("gw-1");
  device.succeed("stat /a", PreparedDevice::stat("0100640", 5));
  device.succeed("read /a", "hello");
  pull("/a", here.path());
  finish();
  EXPECT_FALSE(report->complete());
  EXPECT_EQ(report->error()->number(), EEXIST);
  EXPECT_TRUE(std::filesystem::is_empty(here.file("outside")));
}

TEST_F(TransferTest, PullEndsWhenItsTargetCannotBeOpened) {
  device.succeed("stat /a", PreparedDevice::stat("0100640", 5));
  pull("/a", here.file("missing/copy"));
  finish();
  EXPECT_FALSE(report->complete());
  EXPECT_EQ(report->error()->text(), here.file("missing/copy") + ": No such file or directory");
}

TEST_F(TransferTest, PullWritesASmallFileWithModeAndTime) {
  device.succeed("stat /a", PreparedDevice::stat("0100640", 5));
  device.succeed("read /a", "hello");
  pull("/a", here.file("copy"));
  finish();
  EXPECT_TRUE(report->ok());
  struct stat st {};
  EXPECT_EQ(stat(here.file("copy").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode, 0100640U);
  EXPECT_EQ(st.st_mtim.tv_sec, 5);
  EXPECT_EQ(contentOf(here.file("copy")), "hello");
}

// The sizes that the device tells before and after the content, the content, what is written of it,
// and the only message.
struct SizesCase {
  std::size_t before;
  std::size_t after;
  std::string content;
  std::string written;
  std::string message;
};

class PullSizesTest : public TransferTest, public ::testing::WithParamInterface<SizesCase> {};

INSTANTIATE_TEST_SUITE_P(
    Sizes, PullSizesTest,
    ::testing::Values(
        SizesCase{5, 5, "hello", "hello", ""}, SizesCase{0, 0, "hello", "hello", ""},
        SizesCase{0, 0, "", "", ""},
        SizesCase{3, 5, "hello", "hel",
                  "/a: has grown during the transfer; only its first 3 bytes were copied"},
        SizesCase{1, 5, "h", "h",
                  "/a: has grown during the transfer; only its first 1 byte were copied"},
        SizesCase{0, 5, "hello", "",
                  "/a: has grown during the transfer; only its first 0 bytes were copied"},
        SizesCase{5, 4, "hell", "old", "/a: changed during the transfer"},
        SizesCase{4, 4, "hello", "old", "/a: changed during the transfer"},
        SizesCase{4, 5, "hel", "old", "/a: changed during the transfer"},
        SizesCase{9, 9, "hello", "old", "/a: only 5 of 9 bytes could be read"}));

TEST_P(PullSizesTest, WarnsUnlessTheContentHasTheSizeBeforeAndAfter) {
  const SizesCase& sizes = GetParam();
  here.write("copy", "old");
  device.succeedOnce("stat /a", PreparedDevice::stat("0100640", sizes.before));
  device.succeed("stat /a", PreparedDevice::stat("0100640", sizes.after));
  device.succeed("read /a", sizes.content);
  pull("/a", here.file("copy"));
  finish();
  EXPECT_EQ(contentOf(here.file("copy")), sizes.written);
  const Strings warnings = report->warnings();
  const std::string error = report->error() ? report->error()->text() : "";
  EXPECT_EQ(error + (warnings.empty() ? "" : warnings.front()), sizes.message);
  EXPECT_EQ(report->partial(), !warnings.empty());
}

TEST_F(TransferTest, PullDoesNotCopyAFileThatIsGoneAfterwards) {
  device.succeedOnce("stat /a", PreparedDevice::stat("0100640", 5));
  device.succeed("read /a", "hello");
  pull("/a", here.file("copy"));
  finish();
  ASSERT_TRUE(report->error());
  EXPECT_EQ(report->error()->cause(), Cause::changed);
  EXPECT_FALSE(std::filesystem::exists(here.file("copy")));
}

TEST_F(TransferTest, PullWarnsOfALargeFileThatIsShorterThanAnnounced) {
  device.succeedOnce("stat /a", PreparedDevice::stat("0100640", 2 * kBlock));
  device.succeed("stat /a", PreparedDevice::stat("0100640", 5));
  device.succeed("exec /bin/sh -c exec dd", "hello");
  pull("/a", here.file("copy"));
  finish();
  EXPECT_EQ(report->warnings(),
            Strings{"/a: has shrunk from 131072 bytes to 5 bytes since it was listed"});
  EXPECT_TRUE(report->partial());
  EXPECT_EQ(contentOf(here.file("copy")), "hello");
}

TEST_F(TransferTest, PullWritesTheEarlierLengthOfALargeFileThatGrows) {
  device.succeed("exec /bin/sh -c exec dd", std::string(kBlock, 'x'));
  device.succeedOnce("stat /a", PreparedDevice::stat("0100640", kBlock + 3));
  device.onRequest("exec /bin/sh -c exec dd", [this] {
    device.succeed("stat /a", PreparedDevice::stat("0100640", 2 * kBlock));
  });
  device.succeed("stat /a", PreparedDevice::stat("0100640", kBlock + 3));
  pull("/a", here.file("copy"));
  finish();
  EXPECT_EQ(report->warnings(),
            Strings{"/a: has grown during the transfer; only its first 65539 bytes were copied"});
  EXPECT_EQ(contentOf(here.file("copy")), std::string(kBlock + 3, 'x'));
}

// dd skips whole blocks.
TEST_F(TransferTest, PullAsksForPiecesOfWholeBlocks) {
  options.setMemory(5 * kBlock + 4);
  const std::string dd =
      "exec /bin/sh -c exec dd if=\"$0\" bs=$1 skip=$2 count=$3 2>/dev/null /a 65536 ";
  device.succeed("stat /a", PreparedDevice::stat("0100640", 2 * kBlock + 9));
  device.succeed(dd + "0 2", std::string(2 * kBlock, 'x'));
  device.succeed(dd + "2 1", std::string(9, 'y'));
  pull("/a", here.file("copy"));
  finish();
  EXPECT_TRUE(report->ok());
  EXPECT_EQ(contentOf(here.file("copy")), std::string(2 * kBlock, 'x') + std::string(9, 'y'));
}

TEST_F(TransferTest, PullContinuesAfterItsPart) {
  const std::string begin(kBlock, 'x');
  here.write(partPath("copy"), begin + "a torn block");
  device.succeed("stat /a", PreparedDevice::stat("0100640", kBlock + 9));
  device.succeed("exec /bin/sh -c dd", sumLine(begin));
  device.succeed("exec /bin/sh -c exec dd", std::string(9, 'y'));
  pull("/a", here.file("copy"));
  finish();
  EXPECT_TRUE(report->ok());
  EXPECT_EQ(report->resumedAt(), kBlock);
  EXPECT_EQ(report->bytes(), 9U);
  EXPECT_EQ(contentOf(here.file("copy")), begin + std::string(9, 'y'));
}

TEST_F(TransferTest, PullDoesNotTouchThisHostBeforeTheDeviceAnswers) {
  device.hangUpAt("stat");
  options.setIntoDirectory(true);
  pull("/a", here.file("new"));
  finish();
  EXPECT_FALSE(report->complete());
  EXPECT_NE(access(here.file("new").c_str(), F_OK), 0);
}

TEST_F(TransferTest, ProgressReachesTheTotal) {
  std::vector<std::uint64_t> seen;
  options.setProgress([&](const Progress& progress) {
    EXPECT_EQ(progress.total, 3U);
    seen.push_back(progress.done);
  });
  push({file("a", "1"), file("b", "22")}, "/t");
  finish();
  EXPECT_EQ(seen, (std::vector<std::uint64_t>{1, 3}));
}

TEST(TransferOptionsTest, CopiesHaveTheirOwnSettings) {
  TransferOptions first;
  TransferOptions second = first;
  second.setResume(false).setMemory(5);
  EXPECT_TRUE(first.resume());
  EXPECT_EQ(first.memory(), 33554432U);
  first = second;
  first.setMemory(6);
  EXPECT_EQ(second.memory(), 5U);
  EXPECT_FALSE(first.resume());
}

TEST(PushSourcesTest, CountsWhatItFinds) {
  const zell::test::TempDir here;
  here.write("a", "12345");
  EXPECT_EQ(mkfifo(here.file("fifo").c_str(), 0600) + symlink("a", here.file("l").c_str()), 0);
  const auto sources = PushSources::scan({here.path()}, true);
  ASSERT_TRUE(sources);
  EXPECT_EQ(sources->files(), 1U);
  EXPECT_EQ(sources->directories(), 1U);
  EXPECT_EQ(sources->links(), 1U);
  EXPECT_EQ(sources->bytes(), 5U);
  EXPECT_EQ(sources->skipped(),
            Strings{here.file("fifo") + ": skipped, not a file, directory or link"});
}

TEST(PushSourcesTest, NeedsAnOptionForDirectories) {
  const zell::test::TempDir here;
  const auto sources = PushSources::scan({here.path()}, false);
  ASSERT_FALSE(sources);
  EXPECT_EQ(sources.error().cause(), Cause::directory);
  EXPECT_EQ(sources.error().kind(), Kind::local);
  EXPECT_EQ(PushSources::scan({here.file("none")}, true).error().number(), ENOENT);
}

}  // namespace
}  // namespace runel
