// SPDX-License-Identifier: Apache-2.0
// A push of differences, with a device that answers as prepared.
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <runel/transfer.h>

#include "client/core/sha256.h"
#include "client/transfer/delta/delta_scripts.h"
#include "client/transfer/delta/rolling_checksum.h"
#include "client/transfer/hidden_paths.h"
#include "drivers.h"
#include "support/temp_dir.h"
#include "unit/client/prepared_device.h"

namespace runel {
namespace {

using Texts = std::vector<std::string>;

constexpr std::size_t kOldBlocks = 2;
constexpr std::size_t kPushedBlock = 524288;
constexpr std::size_t kOldSize = kOldBlocks * kPushedBlock;

// How the prepared device shows @p request: without the sizes of its arguments.
std::string shownScript(const Request& request) {
  return "exec sh -c (" + std::to_string(request.words()[3].size()) + " bytes) sh";
}

class DeltaPushTest : public ::testing::Test {
 protected:
  DeltaPushTest() : part(partPath("/t/b")) {
    options.setDelta(Delta::always);
    for (std::size_t block = 0; block < kOldBlocks; ++block) {
      old.append(kPushedBlock, static_cast<char>('a' + block));
    }
    content = "new" + old;
    device.succeed("lstat /t/b", PreparedDevice::stat("0100644", kOldSize));
    device.succeed(shownScript(askForTools("/t/b")), "complete\n");
    device.succeed(sums, sumsOf(old));
  }
  static std::string sumsOf(const std::string& bytes, std::size_t length = kPushedBlock) {
    std::string lines;
    for (std::size_t at = 0; at < bytes.size(); at += length) {
      const std::uint32_t state = crcState(std::string_view(bytes).substr(at, length));
      lines += std::to_string(cksumOf(state, length)) + " " + std::to_string(length) + "\n";
    }
    return lines;
  }
  static std::string digestOf(const std::string& bytes) {
    Sha256 hash;
    hash.add(bytes);
    return hash.finish() + "  -\n";
  }
  // Pushes `content`, which the part has at the end.
  void push() { pushAs(content); }
  // The part has the content @p assembled at the end.
  void pushAs(const std::string& assembled) {
    device.succeed(digests + " " + part, digestOf(assembled));
    start();
  }
  void start() {
    device.succeedOnce("stat " + part, "");
    device.succeed("stat " + part, PreparedDevice::stat("0100600", content.size()));
    transfer =
        AsyncTransfer::push(device.client(), *PushSources::scan({here.write("b", content)}, false),
                            "/t/b", options, [this](const TransferReport& done) { report = done; });
    ASSERT_TRUE(test::runUntil(loop, [this] { return report.has_value(); }));
  }
  void expectWhole(const std::string& why, std::size_t beginnings = 1) {
    EXPECT_TRUE(report->ok());
    EXPECT_EQ(report->notes(), Texts{"/t/b: sent whole: " + why});
    EXPECT_EQ(device.count("write " + part), beginnings + device.count("write " + part + ".gz"));
    EXPECT_EQ(device.count("rename " + part + " /t/b"), 1U);
  }

  zell::test::TempDir here;
  Loop loop;
  PreparedDevice device{loop};
  TransferOptions options;
  const std::string part;
  const std::string sums =
      shownScript(askForSums("/t/b", {kPushedBlock, {{0, kPushedBlock}}}).front().request);
  const std::string copies = shownScript(copyPart("/t/b", {0, kPushedBlock}, "/p"));
  const std::string digests = shownScript(askForDigests("/t/b", {}));
  std::string old;
  std::string content;
  std::optional<TransferReport> report;
  std::unique_ptr<AsyncTransfer> transfer;
};

TEST_F(DeltaPushTest, SendsWhatIsNewAndCopiesTheRest) {
  push();
  EXPECT_TRUE(report->ok());
  EXPECT_EQ(report->notes(), Texts());
  EXPECT_EQ(report->bytes(), 3U);
  EXPECT_EQ(report->kept(), kOldSize);
  EXPECT_EQ(device.count("append " + part + " new"), 1U);
  EXPECT_EQ(device.count(copies + " /t/b " + part + " 65536 0 16"), 1U);
  EXPECT_EQ(device.count("rename " + part + " /t/b"), 1U);
}

TEST_F(DeltaPushTest, TheDeviceComputesChecksumsWhileThePartIsCreated) {
  push();
  const Texts requests = device.requests();
  const auto first = [&](const std::string& words) {
    return std::find_if(requests.begin(), requests.end(), [&](const std::string& request) {
      return request.compare(0, words.size(), words) == 0;
    });
  };
  EXPECT_LT(first("stat " + part), first(sums));
  EXPECT_LT(first(sums), first("write " + part));
}

TEST_F(DeltaPushTest, AsksForDigestsOfDoubtfulBlocks) {
  content = "new" + old.substr(0, kPushedBlock) + "end";
  device.succeed(digests + " /t/b 65536 0 8", digestOf(old.substr(0, kPushedBlock)));
  push();
  EXPECT_EQ(device.count(digests + " /t/b"), 1U);
  EXPECT_EQ(report->kept(), kPushedBlock);
  EXPECT_EQ(report->bytes(), 6U);
}

TEST_F(DeltaPushTest, ABlockWithAnotherDigestIsNotUsed) {
  content = "new" + old.substr(0, kPushedBlock) + "end";
  device.succeed(sums + " /t/b 65536 2", sumsOf(std::string(kOldSize, 'x'), kPushedBlock / 4));
  push();
  expectWhole("the old file has none of its blocks");
  EXPECT_EQ(device.count(copies), 0U);
}

TEST_F(DeltaPushTest, ShorterBlocksAreSearchedInPlaceOfOneWithAnotherDigest) {
  content = "new" + old.substr(0, kPushedBlock) + "end";
  device.succeed(sums + " /t/b 65536 2", sumsOf(old, kPushedBlock / 4));
  push();
  EXPECT_TRUE(report->ok());
  EXPECT_EQ(device.count(digests + " /t/b"), 1U);
  EXPECT_EQ(report->kept(), kPushedBlock);
}

TEST_F(DeltaPushTest, IsAWholeFileWithoutTheUtilities) {
  device.succeed(shownScript(askForTools("/t/b")), "missing cksum\n");
  push();
  expectWhole("the device has no cksum");
}

TEST_F(DeltaPushTest, IsAWholeFileWithoutSpaceForBoth) {
  device.succeed(shownScript(askForTools("/t/b")),
                 "complete\nheading\ntmpfs 9000 8000 1000 88% /t\n");
  push();
  expectWhole("the device has no space for both files");
}

TEST_F(DeltaPushTest, NeedsSpaceForTheNewFileOnly) {
  content = std::string(1024, 'x') + old;
  device.succeed(shownScript(askForTools("/t/b")),
                 "complete\nheading\ntmpfs 9000 7975 1025 88% /t\n");
  push();
  EXPECT_EQ(report->notes(), Texts());
  EXPECT_EQ(report->kept(), kOldSize);
}

TEST_F(DeltaPushTest, IsAWholeFileWithoutAShell) {
  device.fail(shownScript(askForTools("/t/b")), ENOENT);
  push();
  expectWhole("sh: No such file or directory");
}

TEST_F(DeltaPushTest, IsAWholeFileAfterOtherSums) {
  for (const std::string& answer : {std::string(), std::string("1 524288\n"), sumsOf(old) + "1 5\n",
                                    std::string("4294967296 524288\n")}) {
    report.reset();
    device.succeed(sums, answer);
    push();
    EXPECT_EQ(report->notes(), Texts{"/t/b: sent whole: unexpected output of cksum"});
    EXPECT_EQ(report->bytes(), content.size());
  }
}

TEST_F(DeltaPushTest, AWholeFileIsCompressed) {
  options.setCompression([](std::string_view bytes) { return std::string(bytes.substr(0, 9)); },
                         true);
  device.succeed(shownScript(askForTools("/t/b")), "missing cksum\n");
  content = std::string(std::size_t{24} << 20U, 'x');
  push();
  expectWhole("the device has no cksum");
  EXPECT_EQ(report->bytes(), content.size());
  EXPECT_LT(report->sentBytes(), content.size());
  EXPECT_EQ(device.count("unlink " + part + ".gz"), 1U);
}

TEST_F(DeltaPushTest, DifferencesAreNotCompressed) {
  std::size_t compressed = 0;
  options.setCompression(
      [&](std::string_view bytes) {
        ++compressed;
        return std::string(bytes.substr(0, 1));
      },
      true);
  push();
  EXPECT_EQ(report->kept(), kOldSize);
  EXPECT_EQ(report->sentBytes(), 3U);
  EXPECT_EQ(compressed, 0U);
}

TEST_F(DeltaPushTest, ModeAndTimeFollowTheLastBytes) {
  std::size_t renamed = 0;
  device.onRequest("exec touch", [&] { renamed = device.count("rename"); });
  push();
  EXPECT_EQ(device.count("exec touch"), 1U);
  EXPECT_EQ(device.count("exec chmod 0600"), 1U);
  EXPECT_EQ(device.count("exec chmod"), 2U);
  EXPECT_EQ(renamed, 0U) << "the rename is the last step";
}

TEST_F(DeltaPushTest, APlanOnlyReads) {
  options.setPlanOnly(true);
  start();
  EXPECT_TRUE(report->ok());
  EXPECT_EQ(report->bytes(), content.size());
  EXPECT_EQ(device.count("exec"), 0U);
  EXPECT_EQ(device.count("write") + device.count("append") + device.count("rename"), 0U);
}

TEST_F(DeltaPushTest, IsAWholeFileIfACopyFails) {
  device.fail(copies, EIO);
  push();
  expectWhole("dd: Input/output error", 2);
}

TEST_F(DeltaPushTest, TheChecksumOfTheWholeFileDecides) {
  pushAs("something else");
  expectWhole("the assembled file has another checksum", 2);
  EXPECT_EQ(device.count("exec touch"), 2U) << "the first one did not wait for the checksum";
  EXPECT_EQ(report->bytes(), 3 + content.size());
}

TEST_F(DeltaPushTest, IsAWholeFileWithoutItsChecksum) {
  device.succeed(digests + " " + part, "no checksum");
  start();
  EXPECT_EQ(report->notes(), Texts{"/t/b: sent whole: no checksum"});
}

TEST_F(DeltaPushTest, FailsIfTheDeviceCannotWrite) {
  device.fail("append", ENOSPC);
  push();
  EXPECT_EQ(report->error()->text(), "/t/b: No space left on device");
  EXPECT_EQ(device.count("unlink " + part), 1U);
  EXPECT_EQ(device.count("rename"), 0U);
}

TEST_F(DeltaPushTest, AnUnfinishedOneLeavesNothing) {
  std::optional<Request> cleanUp;
  device.onRequest(copies, [&] { cleanUp = transfer->cleanUp(); });
  push();
  ASSERT_TRUE(cleanUp);
  EXPECT_EQ(cleanUp->words(), (Texts{"unlink", part}));
  EXPECT_FALSE(transfer->cleanUp());
}

TEST_F(DeltaPushTest, EndsWhenTheConnectionIsLost) {
  device.hangUpAt(copies);
  push();
  EXPECT_FALSE(report->complete());
  EXPECT_EQ(report->error()->kind(), Kind::link);
}

TEST_F(DeltaPushTest, MayBeDestroyedWhileItWorks) {
  bool reached = false;
  device.onRequest(sums, [&] {
    transfer.reset();
    reached = true;
  });
  transfer =
      AsyncTransfer::push(device.client(), *PushSources::scan({here.write("b", content)}, false),
                          "/t/b", options, [](const TransferReport&) { FAIL(); });
  ASSERT_TRUE(test::runUntil(loop, [&] { return reached && device.client().pending() == 0; }));
}

TEST_F(DeltaPushTest, AutomaticallyOnASlowLine) {
  options.setDelta(Delta::automatic);
  content = std::string(std::size_t{5} << 20U, 'x');
  device.succeed("lstat /t/b", PreparedDevice::stat("0100644", content.size()));
  std::size_t measured = 0;
  device.onRequest("append", [&] {
    if (device.count(sums) == 0) {
      ++measured;
      std::this_thread::sleep_for(std::chrono::milliseconds(500));
    }
  });
  push();
  EXPECT_EQ(measured, 2U) << "pieces before the first question about the old file";
  EXPECT_NE(device.count(sums), 0U);
  EXPECT_EQ(report->bytes(), content.size()) << "nothing is sent twice";
  EXPECT_EQ(report->notes().size(), 1U) << "the sums are those of another file";
}

TEST_F(DeltaPushTest, NotForNewAndSmallFiles) {
  device.fail("lstat /t/b", ENOENT);
  push();
  EXPECT_EQ(report->bytes(), content.size());
  EXPECT_EQ(device.count("exec sh"), 0U);
}

}  // namespace
}  // namespace runel
