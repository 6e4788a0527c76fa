// SPDX-License-Identifier: Apache-2.0
// Names below a directory, which lead through no link, with and without openat2().
#include "client/transfer/local_directory.h"

#include <cerrno>
#include <filesystem>
#include <string>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "support/refused_call.h"
#include "support/temp_dir.h"

namespace runel {
namespace {

using zell::test::contentOf;
using zell::test::runWithoutCall;
using zell::test::TempDir;

class LocalDirectoryTest : public ::testing::Test {
 protected:
  LocalDirectoryTest() {
    std::filesystem::create_directories(outside_.file("sub"));
    outside_.write("keys", "keys");
    std::filesystem::create_directories(here_.file("d"));
    here_.write("a", "here/a");
    here_.write("d/b", "here/d/b");
    for (const char* name : {"out", "d/out"}) {
      std::filesystem::create_symlink(outside_.path(), here_.file(name));
    }
    std::filesystem::create_symlink("d", here_.file("in"));
    std::filesystem::create_symlink("a", here_.file("file"));
    EXPECT_FALSE(top_.open(here_.path()));
  }

  LocalPath at(const std::string& name) { return {&top_, name, "text/" + name}; }

  TempDir outside_;
  TempDir here_;
  LocalDirectory top_;
};

// The parameter is the error of openat2(), 0 for none.
class OpenBelowTest : public LocalDirectoryTest, public ::testing::WithParamInterface<int> {
 protected:
  // The errno of opening @p name, 0 for success.
  int open(const std::string& name, int flags = O_RDONLY) {
    int number = -1;
    const auto attempt = [&] {
      const zell::UniqueFd file = top_.openBelow(name, flags);
      number = file.valid() ? 0 : errno;
    };
    if (GetParam() == 0) {
      attempt();
    } else {
      runWithoutCall(SYS_openat2, GetParam(), attempt);
    }
    return number;
  }
};

INSTANTIATE_TEST_SUITE_P(Kernels, OpenBelowTest, ::testing::Values(0, ENOSYS, EPERM, EAGAIN));

TEST_P(OpenBelowTest, OpensFilesAndDirectoriesBelow) {
  for (const char* name : {"a", "d", "d/b", "."}) {
    EXPECT_EQ(open(name), 0) << name;
  }
  EXPECT_EQ(open("d", O_PATH | O_DIRECTORY), 0);
}

TEST_P(OpenBelowTest, FollowsNoLink) {
  for (const char* name : {"out", "out/keys", "out/sub", "d/out/keys", "in", "in/b", "file"}) {
    EXPECT_EQ(open(name), ELOOP) << name;
    EXPECT_EQ(open(name, O_RDONLY | O_DIRECTORY), ELOOP) << name;
    EXPECT_EQ(open(name, O_PATH | O_DIRECTORY), ELOOP) << name;
  }
}

TEST_P(OpenBelowTest, RefusesPathsThatLeadOut) {
  const std::string zero("a\0b", 3);
  for (const std::string& name :
       {std::string(), std::string(".."), std::string("../a"), std::string("d/.."),
        std::string("/etc"), std::string("d//b"), std::string("d/./b"), std::string("d/"),
        std::string("./d"), zero}) {
    EXPECT_EQ(open(name), EINVAL) << name;
  }
}

TEST_P(OpenBelowTest, ReportsOtherErrors) {
  EXPECT_EQ(open("none"), ENOENT);
  EXPECT_EQ(open("none/a"), ENOENT);
  EXPECT_EQ(open("a/b"), ENOTDIR);
  EXPECT_EQ(open("a", O_RDONLY | O_DIRECTORY), ENOTDIR);
  EXPECT_EQ(open(std::string(256, 'n')), ENAMETOOLONG);
  EXPECT_EQ(open(std::string(256, 'n') + "/a"), ENAMETOOLONG);
}

TEST_P(OpenBelowTest, StaysInItsDirectoryWhenTheNameLeadsElsewhere) {
  std::filesystem::rename(here_.file("d"), here_.file("moved"));
  LocalDirectory moved;
  ASSERT_FALSE(moved.createBelow(top_, "moved", "moved"));
  std::filesystem::rename(here_.file("moved"), here_.file("again"));
  std::filesystem::create_symlink(outside_.path(), here_.file("moved"));
  EXPECT_TRUE(moved.openBelow("b", O_RDONLY).valid());
  EXPECT_FALSE(moved.openBelow("keys", O_RDONLY).valid());
}

TEST_P(OpenBelowTest, MayBeALinkItself) {
  std::filesystem::create_symlink(here_.path(), outside_.file("named"));
  ASSERT_FALSE(top_.create(outside_.file("named")));
  EXPECT_EQ(open("a"), 0);
}

TEST_F(LocalDirectoryTest, DoesNotWalkAroundOtherErrorsOfTheCall) {
  int number = 0;
  runWithoutCall(SYS_openat2, EMFILE,
                 [&] { number = top_.openBelow("a", O_RDONLY).valid() ? 0 : errno; });
  EXPECT_EQ(number, EMFILE);
}

TEST_F(LocalDirectoryTest, CreatesDirectoriesPrivate) {
  LocalDirectory made;
  ASSERT_FALSE(made.create(here_.file("new")));
  ASSERT_FALSE(made.createBelow(top_, "below", "below"));
  ASSERT_FALSE(made.createBelow(top_, "below", "below")) << "it exists now";
  ASSERT_FALSE(makeLocalDirectory(at("d/new")));
  for (const char* name : {"new", "below", "d/new"}) {
    struct stat st {};
    ASSERT_EQ(stat(here_.file(name).c_str(), &st), 0);
    EXPECT_EQ(st.st_mode, mode_t{S_IFDIR | 0700}) << name;
  }
}

TEST_F(LocalDirectoryTest, CreatesNoDirectoryInPlaceOfOrThroughALink) {
  LocalDirectory made;
  EXPECT_EQ(made.createBelow(top_, "out", "text/out")->text(), "text/out: File exists");
  EXPECT_EQ(made.createBelow(top_, "file", "text/file")->number(), EEXIST);
  EXPECT_EQ(makeLocalDirectory(at("a"))->number(), EEXIST);
  EXPECT_EQ(made.create(here_.file("a"))->number(), EEXIST);
  const auto error = makeLocalDirectory(at("out/new"));
  ASSERT_TRUE(error);
  EXPECT_EQ(error->cause(), Cause::outside);
  EXPECT_EQ(error->text(), "text/out/new: a symbolic link is in the path");
  EXPECT_EQ(makeLocalDirectory(at(".."))->number(), EINVAL);
  EXPECT_FALSE(std::filesystem::exists(outside_.file("new")));
}

TEST_F(LocalDirectoryTest, SetsNoModeThroughALink) {
  ASSERT_EQ(chmod(outside_.file("sub").c_str(), 0750), 0);
  EXPECT_EQ(finishLocalDirectory(at("out"), 0777, {1, 2})->number(), ELOOP);
  EXPECT_EQ(finishLocalDirectory(at("out/sub"), 0777, {1, 2})->number(), ELOOP);
  EXPECT_FALSE(finishLocalDirectory(at("d"), 07711, {1, 2}));
  struct stat st {};
  ASSERT_EQ(stat(outside_.file("sub").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode, mode_t{S_IFDIR | 0750});
  ASSERT_EQ(stat(here_.file("d").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode, mode_t{S_IFDIR | 0711});
  EXPECT_EQ(st.st_mtim.tv_sec + st.st_mtim.tv_nsec, 3);
}

TEST_F(LocalDirectoryTest, FollowsOnlyLinksThatTheUserNamed) {
  LocalPath named{nullptr, here_.file("file"), "file", false};
  EXPECT_FALSE(openLocal(named, 0).valid());
  EXPECT_EQ(errno, ELOOP);
  named.namedLink = true;
  EXPECT_TRUE(openLocal(named, 0).valid());
  named.name = here_.file("in/b");
  EXPECT_TRUE(openLocal(named, 0).valid()) << "the directories are the user's";
}

TEST(StaysBelowTest, AcceptsOnlyPlainRelativePaths) {
  for (const char* path : {".", "a", "a/b", ".a", "..a", "a/...", "a/b/c", " ", "\xff"}) {
    EXPECT_TRUE(staysBelow(path)) << path;
  }
  for (const char* path :
       {"", "..", "/", "/a", "a/", "a//b", "a/..", "../a", "a/../b", "./a", "a/."}) {
    EXPECT_FALSE(staysBelow(path)) << path;
  }
  EXPECT_FALSE(staysBelow(std::string_view("a\0", 2)));
}

}  // namespace
}  // namespace runel
