// SPDX-License-Identifier: Apache-2.0
// Which files of this host a push finds.
#include "client/transfer/local_tree.h"

#include <cerrno>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/syscall.h>

#include "client/transfer/local_file.h"
#include "support/refused_call.h"
#include "support/spied_calls.h"
#include "support/temp_dir.h"

namespace runel {
namespace {

using ::testing::ElementsAre;
using zell::test::SpiedCalls;
using zell::test::TempDir;

class LocalTreeTest : public ::testing::Test {
 protected:
  LocalTreeTest() {
    std::filesystem::create_directories(here_.file("tree/d"));
    here_.write("tree/d/b", "below");
    here_.write("secret", "secret");
    std::filesystem::create_symlink("../../secret", here_.file("tree/d/l"));
  }

  // Scans the tree. Returns the errno, 0 for success.
  int scan() {
    const auto found = scanLocal(here_.file("tree"), true, left_);
    source_ = found ? *found : LocalSource();
    return found ? 0 : found.error().number();
  }

  TempDir here_;
  LocalSource source_;
  std::vector<std::string> left_;
};

TEST_F(LocalTreeTest, FindsFilesDirectoriesAndLinks) {
  ASSERT_EQ(scan(), 0);
  std::vector<std::string> found;
  for (const LocalEntry& entry : source_.entries) {
    found.push_back(entry.type + entry.relative + ">" + entry.target);
  }
  EXPECT_THAT(found, ElementsAre("d>", "dd>", "-d/b>", "ld/l>../../secret"));
}

TEST_F(LocalTreeTest, TheContentIsReadFromTheScannedDirectory) {
  ASSERT_EQ(scan(), 0);
  std::filesystem::rename(here_.file("tree"), here_.file("moved"));
  std::filesystem::create_directories(here_.file("tree/d"));
  here_.write("tree/d/b", "other");
  std::string content;
  EXPECT_FALSE(readWhole(placeOf(source_.entries[2]), 100, content));
  EXPECT_EQ(content, "below");
}

TEST_F(LocalTreeTest, AFileThatIsALinkNowIsNotRead) {
  ASSERT_EQ(scan(), 0);
  std::filesystem::remove(here_.file("tree/d/b"));
  std::filesystem::create_symlink(here_.file("secret"), here_.file("tree/d/b"));
  std::string content;
  EXPECT_EQ(readWhole(placeOf(source_.entries[2]), 100, content)->cause(), Cause::outside);
  EXPECT_EQ(content, "");
}

TEST_F(LocalTreeTest, ADirectoryThatIsALinkNowIsNotScanned) {
  std::filesystem::create_directories(here_.file("tree/e"));
  SpiedCalls calls;
  // "d" and "e" are in the list. The walk reads "d" first, and looks at its entries then.
  calls.before("fstatat", 2, [this] {
    std::filesystem::remove(here_.file("tree/e"));
    std::filesystem::create_symlink(here_.path(), here_.file("tree/e"));
  });
  EXPECT_EQ(scan(), ELOOP);
}

// A sync with --delete would remove what is missing in the list.
TEST_F(LocalTreeTest, ADirectoryThatCannotBeReadFailsTheScan) {
  int number = 0;
  zell::test::runWithoutCall(SYS_getdents64, EIO, [&] { number = scan(); });
  EXPECT_EQ(number, EIO);
}

TEST_F(LocalTreeTest, AnEntryThatDisappearsIsLeftOut) {
  SpiedCalls calls;
  calls.fail("readlinkat", EINVAL);  // no link any more
  EXPECT_EQ(scan(), 0);
  EXPECT_THAT(left_, ElementsAre(here_.file("tree/d/l")));
  left_.clear();
  calls.fail("fstatat", ENOENT);
  EXPECT_EQ(scan(), 0);
  EXPECT_THAT(left_, ElementsAre(here_.file("tree/d")));
}

TEST_F(LocalTreeTest, AnEntryThatCannotBeExaminedFailsTheScan) {
  const std::pair<const char*, int> failures[] = {
      {"fstatat", EIO}, {"fstatat", EINVAL}, {"readlinkat", EIO}, {"readlinkat", EACCES}};
  for (const auto& [call, error] : failures) {
    SpiedCalls calls;
    calls.fail(call, error);
    EXPECT_EQ(scan(), error) << call;
    EXPECT_THAT(left_, ElementsAre()) << call;
  }
}

}  // namespace
}  // namespace runel
