// SPDX-License-Identifier: Apache-2.0
// Resolves a path in user space: the result must not depend on an earlier system call.
#include "device/linux/file_place.h"

#include <cerrno>
#include <string>

#include <unistd.h>

#include "contract/linux/proxy_test.h"

namespace zell::test {
namespace {

class FilePlaceTest : public ProxyTest {
 protected:
  static int find(const std::string& path) {
    FilePlace place;
    return findPlace(path, place);
  }
};

TEST_F(FilePlaceTest, FailsForAPathThatEndsInADirectory) {
  mkdir(dir_.file("below").c_str(), 0755);
  for (const std::string& path : {std::string("/"), dir_.path() + "/", dir_.path() + "/.",
                                  dir_.file("below/.."), std::string("."), std::string("..")}) {
    EXPECT_EQ(find(path), EISDIR) << path;
  }
}

TEST_F(FilePlaceTest, FailsForAnEmptyPath) {
  EXPECT_EQ(find(""), ENOENT);
}

TEST_F(FilePlaceTest, FollowsFortyLinksAndNoMore) {
  ASSERT_EQ(symlink("target", dir_.file("0").c_str()), 0);
  for (int i = 1; i <= 40; ++i) {
    const std::string next = dir_.file(std::to_string(i));
    ASSERT_EQ(symlink(std::to_string(i - 1).c_str(), next.c_str()), 0);
  }
  FilePlace place;
  EXPECT_EQ(findPlace(dir_.file("39"), place), 0);
  EXPECT_EQ(place.name, "target");
  EXPECT_EQ(find(dir_.file("40")), ELOOP);
}

TEST_F(FilePlaceTest, FailsForALoopOfLinks) {
  ASSERT_EQ(symlink("circle", dir_.file("circle").c_str()), 0);
  EXPECT_EQ(find(dir_.file("circle")), ELOOP);
}

TEST_F(FilePlaceTest, IsInTheRootDirectoryForAPathWithOneSlash) {
  FilePlace place;
  ASSERT_EQ(findPlace("/none-of-this-name", place), 0);
  EXPECT_EQ(place.name, "none-of-this-name");
  struct stat there {};
  ASSERT_EQ(fstat(place.directory.get(), &there), 0);
  EXPECT_EQ(there.st_ino, statusOf("/").st_ino);
}

}  // namespace
}  // namespace zell::test
