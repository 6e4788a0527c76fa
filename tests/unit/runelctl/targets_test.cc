// SPDX-License-Identifier: Apache-2.0
// The file of the devices that failed.
#include "cli/targets.h"

#include <cerrno>
#include <filesystem>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/spied_calls.h"
#include "support/temp_dir.h"

namespace runelctl {
namespace {

using ::testing::ElementsAre;
using zell::test::contentOf;
using zell::test::SpiedCalls;
using zell::test::TempDir;

class WriteTargetsTest : public ::testing::Test {
 protected:
  int writeOne() { return writeTargets(path_, {*runel::Address::parse("gw-1:7000")}); }

  TempDir dir_;
  std::string path_ = dir_.write("failed", "old\n");
  SpiedCalls calls_;
};

TEST_F(WriteTargetsTest, WritesOneDeviceALineWithItsName) {
  const auto plain = *runel::Address::parse("gw-1:7000");
  EXPECT_EQ(writeTargets(path_, {plain, plain.named("hall")}), 0);
  EXPECT_EQ(contentOf(path_), "gw-1:7000\nhall gw-1:7000\n");
  EXPECT_EQ(writeTargets(path_, {runel::Address("gw-2"), runel::Address("gw-3").named("hall")}), 0);
  EXPECT_EQ(contentOf(path_), "gw-2\nhall gw-3\n") << "without the usual port";
  EXPECT_EQ(writeTargets(path_, {}), 0);
  EXPECT_EQ(contentOf(path_), "");
}

TEST_F(WriteTargetsTest, SyncsTheListBeforeItsRenameAndTheDirectoryAfterIt) {
  EXPECT_EQ(writeOne(), 0);
  EXPECT_THAT(calls_.calls(), ElementsAre("write", "fsync file", "renameat", "fsync directory"));
}

TEST_F(WriteTargetsTest, KeepsTheOldListWhenACallFails) {
  for (const char* call : {"write", "fsync file", "close", "renameat"}) {
    calls_.fail(call, ENOSPC);
    EXPECT_EQ(writeOne(), ENOSPC) << call;
    EXPECT_EQ(contentOf(path_), "old\n") << call;
  }
}

TEST_F(WriteTargetsTest, KeepsTheOldListWhenNoFileCanBeMadeForAnEmptyOne) {
  ASSERT_TRUE(std::filesystem::create_directory(path_ + ".new"));
  EXPECT_EQ(writeTargets(path_, {}), EISDIR);
  EXPECT_EQ(contentOf(path_), "old\n");
}

TEST_F(WriteTargetsTest, ReportsADirectoryThatIsMissing) {
  path_ = dir_.file("none/failed");
  EXPECT_EQ(writeOne(), ENOENT);
}

}  // namespace
}  // namespace runelctl
