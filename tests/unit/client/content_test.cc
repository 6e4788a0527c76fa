// SPDX-License-Identifier: Apache-2.0
// Transferred content: checksums, archives, the answers of tasks.
#include <array>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <runel/records.h>

#include "client/core/paths.h"
#include "client/core/peer_guess.h"
#include "client/core/sha256.h"
#include "client/core/sha256_blocks.h"
#include "client/transfer/archive.h"
#include "client/transfer/checksums.h"
#include "support/temp_dir.h"

namespace runel {
namespace {

std::string sha256(const std::string& text) {
  Sha256 hash;
  hash.add(text);
  return hash.finish();
}

TEST(Sha256Test, MatchesThePublishedTestVectors) {
  EXPECT_EQ(sha256(""), "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
  EXPECT_EQ(sha256("abc"), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
  EXPECT_EQ(sha256("abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq"),
            "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1");
  EXPECT_EQ(sha256(std::string(1000000, 'a')),
            "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0");
}

TEST(Sha256Test, IsTheSameOnAnyProcessor) {
  std::string bytes;
  for (unsigned i = 0; i < 640; ++i) {
    bytes += static_cast<char>((i * i) & 0xffU);
  }
  const auto* const data = reinterpret_cast<const unsigned char*>(bytes.data());
  Sha256State portable{1, 2, 3, 4, 5, 6, 7, 0xffffffff};
  Sha256State fastest = portable;
  portableSha256Blocks(portable, data, 10);
  sha256Blocks()(fastest, data, 4);
  sha256Blocks()(fastest, data + 256, 6);
  EXPECT_EQ(portable, fastest);
}

TEST(Sha256Test, IsIndependentOfTheSplittingOfTheInput) {
  std::string text(1000, '\0');
  for (std::size_t i = 0; i < text.size(); ++i) {
    text[i] = static_cast<char>(i * 7);
  }
  for (std::size_t cut = 1; cut < 200; ++cut) {
    Sha256 hash;
    for (std::size_t at = 0; at < text.size(); at += cut) {
      hash.add(text.substr(at, cut));
    }
    ASSERT_EQ(hash.finish(), sha256(text)) << cut;
  }
}

// The listing of an archive by the tar of this host.
std::string listed(const std::string& archive) {
  const zell::test::TempDir directory;
  const std::string path = directory.path() + "/a";
  std::unique_ptr<FILE, int (*)(FILE*)> file(std::fopen(path.c_str(), "wb"), &std::fclose);
  std::fwrite(archive.data(), 1, archive.size(), file.get());
  file.reset();
  const std::string command = "TZ=UTC tar -tvf " + path + " --numeric-owner --full-time 2>&1";
  std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen(command.c_str(), "r"), &pclose);
  std::array<char, 4096> text{};
  return std::string(text.data(), std::fread(text.data(), 1, text.size(), pipe.get()));
}

TEST(ArchiveTest, IsReadByTarWithModeOwnerAndNanoseconds) {
  Archive archive;
  archive.add("0", {0640, 12, 34, {1600000000, 123456789}}, "content");
  archive.add("1", {04755, 0, 0, {1, 5}}, "");
  EXPECT_EQ(listed(archive.finish()),
            "-rw-r----- 12/34             7 2020-09-13 12:26:40.123456789 0\n"
            "-rwsr-xr-x 0/0               0 1970-01-01 00:00:01.000000005 1\n");
}

TEST(ArchiveTest, StoresDirectoriesWithModeOwnerAndNanoseconds) {
  Archive archive;
  archive.addDirectory("a/.", {02750, 12, 34, {1600000000, 123456789}});
  EXPECT_EQ(listed(archive.finish()),
            "drwxr-s--- 12/34             0 2020-09-13 12:26:40.123456789 a/.\n");
}

TEST(ArchiveTest, ConsistsOfCompleteBlocks) {
  for (const std::size_t size : {0U, 1U, 511U, 512U, 513U}) {
    Archive archive;
    archive.add("0", {0644, 0, 0, {0, 0}}, std::string(size, 'x'));
    EXPECT_EQ(archive.finish().size() % 512, 0U) << size;
  }
}

TEST(RecordsTest, TreeNamesAreUnescaped) {
  const auto tree = parseTree("l 0777 0 0 0 5 a\\x0ab -> \\x5cx\n- 0644 1 2 3 4 plain name\n");
  ASSERT_TRUE(tree);
  EXPECT_EQ((*tree)[0].path, "a\nb");
  EXPECT_EQ((*tree)[0].target, "\\x");
  EXPECT_EQ((*tree)[1].path, "plain name");
  EXPECT_EQ((*tree)[1].size, 3U);
}

TEST(RecordsTest, MalformedTextIsRejected) {
  for (const char* text : {"x", "- 0644 1 2 3 4 \n", "- 0644 1 2 3 4 a", "l 0777 0 0 0 5 a\n",
                           "- 0644 1 2 3 4 a\\q\n", "- 0644 1 2 3 x a\n"}) {
    EXPECT_FALSE(parseTree(text)) << text;
  }
  for (const char* text : {"", "StringVec", "StringVec 1\n", "StringVec 1\n5:a\n", "StringVec 0\nx",
                           "StringVec 99999999999999\n"}) {
    EXPECT_FALSE(parseNames(text)) << text;
  }
  EXPECT_FALSE(parseStat("dev=1"));
}

TEST(RecordsTest, TheNanosecondsOfATimeAreLessThanASecond) {
  const auto statAt = [](const char* time) {
    return parseStat(
        "dev=1 ino=1 mode=0100644 nlink=1 uid=0 gid=0 rdev=0 size=3 blksize=1 blocks=1 "
        "atime=1.000000000 mtime=" +
        std::string(time) + " ctime=1.000000000\n");
  };
  EXPECT_TRUE(statAt("-5.999999999"));
  EXPECT_FALSE(statAt("5.1000000000"));
  EXPECT_FALSE(statAt("5.-1"));
}

TEST(RecordsTest, NamesMayHoldAnyByte) {
  EXPECT_EQ(parseNames("StringVec 2\n3:a\nb\n0:\n"), (std::vector<std::string>{"a\nb", ""}));
}

TEST(RecordsTest, PathsAreSplitAndJoined) {
  EXPECT_EQ(baseName("/a/b/"), "b");
  EXPECT_EQ(baseName("/"), "/");
  EXPECT_EQ(directoryOf("/a/b"), "/a");
  EXPECT_EQ(directoryOf("/a"), "/");
  EXPECT_EQ(directoryOf("a"), ".");
  EXPECT_EQ(joinPath("/a", "b"), "/a/b");
  EXPECT_EQ(joinPath("/a", "/b"), "/b");
}

TEST(ChecksumsTest, AreParsedForNamesWithNewlines) {
  const std::string sum(64, 'a');
  EXPECT_EQ(parseChecksums(sum + "  x\n\\" + sum + "  a\\nb\n", 2),
            (std::vector<std::string>{sum, sum}));
  EXPECT_FALSE(parseChecksums(sum + "  x\n", 2));
  EXPECT_FALSE(parseChecksums("sha256sum: x: No such file\n", 1));
}

TEST(PeerGuessTest, IgnoresFramesAndRecognizesSsh) {
  EXPECT_EQ(guessPeer("\x01"), "");
  EXPECT_EQ(guessPeer(" \r\n\x01"), "");
  EXPECT_EQ(guessPeer("SSH-2.0"), "the peer is not runeld: it looks like an SSH server");
}

}  // namespace
}  // namespace runel
